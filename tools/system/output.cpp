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
        progressShown.clear();
        std::fputs("\r\x1b[K", stderr);
        std::fflush(stderr);
    }
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

void output::line(const QString& text)
{
    write(STDOUT_FILENO, text.toUtf8() + '\n');
}

void output::json(const QJsonObject& object)
{
    raw(QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n');
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

void output::error(const QString& text)
{
    write(STDERR_FILENO, text.toUtf8() + '\n');
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
    std::fprintf(stderr, "\r%s\x1b[K", bytes.constData());
    std::fflush(stderr);
    progressShown = bytes;
}

void output::endProgress()
{
    const std::lock_guard guard(lock);
    clearProgress();
}
