// SPDX-License-Identifier: MIT
#include "output.h"

#include "toolerror.h"

#include <QJsonDocument>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <mutex>

#include <poll.h>
#include <unistd.h>

namespace
{

constexpr int graceMs = 500; // for a slow reader, once the person has had enough

std::mutex lock;          // a leaf; guards the streams and what follows
QByteArray progressShown; // empty: none
int stopDescriptor = -1;
bool outputLost = false;
bool errorLost = false;

void clearProgress()
{
    if (!progressShown.isEmpty()) {
        const int shownLength = static_cast<int>(progressShown.size());
        progressShown.clear();
        std::fprintf(stderr, "\r%s\r", QByteArray(shownLength, ' ').constData());
        std::fflush(stderr);
    }
}

bool hasColours(int descriptor)
{
    return isatty(descriptor) == 1 && qgetenv("NO_COLOR").isEmpty() && qgetenv("TERM") != "dumb";
}

QByteArray coloured(const QString& text, output::Tone tone, int descriptor)
{
    static const bool hasColour[] = {hasColours(STDOUT_FILENO), hasColours(STDERR_FILENO)};
    static const char* const codes[] = {"", "2", "32", "33", "31"}; // by tone
    const bool isPlain = tone == output::Tone::Plain || !hasColour[descriptor - STDOUT_FILENO];
    return isPlain ? text.toUtf8()
                   : QByteArray("\x1b[") + codes[static_cast<int>(tone)] + 'm' + text.toUtf8() +
                         "\x1b[0m";
}

// A reader that does not read must not keep Ctrl-C from being seen, so what may block is asked
// first; a pipe with room has it for so many bytes.
bool writeAll(int descriptor, const QByteArray& bytes)
{
    QByteArray::size_type done = 0;
    while (done < bytes.size()) {
        pollfd watched[] = {{descriptor, POLLOUT, 0}, {stopDescriptor, POLLIN, 0}};
        poll(watched, 2, -1);
        const bool isStopped = watched[0].revents == 0 && watched[1].revents != 0;
        if (isStopped && poll(watched, 1, graceMs) == 0) {
            return false;
        }
        const QByteArray piece = bytes.mid(done, PIPE_BUF);
        const ssize_t size =
            ::write(descriptor, piece.constData(), static_cast<std::size_t>(piece.size()));
        if (size < 0 && errno != EINTR && errno != EAGAIN) {
            return false;
        }
        done += static_cast<int>(std::max<ssize_t>(size, 0));
    }
    return true;
}

void write(int descriptor, const QByteArray& bytes)
{
    const std::lock_guard guard(lock);
    clearProgress();
    bool& lost = descriptor == STDOUT_FILENO ? outputLost : errorLost;
    lost = lost || !writeAll(descriptor, bytes);
}

} // namespace

void output::line(const QString& text, Tone tone)
{
    write(STDOUT_FILENO, coloured(text, tone, STDOUT_FILENO) + '\n');
}

void output::json(const QJsonObject& object)
{
    raw(QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n');
}

QJsonObject output::ended(QJsonObject object, int code, const QString& wrong)
{
    object.insert("ok", code == exitcode::success);
    object.insert("code", code);
    if (!wrong.isEmpty()) {
        object.insert("error", wrong);
    }
    return object;
}

void output::result(QJsonObject object, int code, const QString& wrong)
{
    json(ended(std::move(object), code, wrong));
}

void output::raw(const QByteArray& bytes)
{
    write(STDOUT_FILENO, bytes);
}

bool output::lost()
{
    const std::lock_guard guard(lock);
    return outputLost;
}

void output::checkLoss()
{
    if (lost()) {
        throw ToolError(exitcode::failed, "standard output could not be written");
    }
}

void output::stopAt(int descriptor)
{
    const std::lock_guard guard(lock);
    stopDescriptor = descriptor;
}

void output::error(const QString& text, Tone tone)
{
    write(STDERR_FILENO, coloured(text, tone, STDERR_FILENO) + '\n');
}

void output::progress(const QString& text)
{
    static const bool onTerminal = isatty(STDERR_FILENO) == 1;
    if (!onTerminal) {
        return;
    }
    const QByteArray bytes = text.toUtf8();
    const std::lock_guard guard(lock);
    if (bytes == progressShown) {
        return;
    }
    const int width = static_cast<int>(progressShown.size()); // what is longer is written over
    std::fprintf(stderr, "\r%-*s", width, bytes.constData());
    std::fflush(stderr);
    progressShown = bytes;
}

void output::endProgress()
{
    const std::lock_guard guard(lock);
    clearProgress();
}
