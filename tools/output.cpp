// SPDX-License-Identifier: MIT
#include "output.h"

#include "toolerror.h"

#include <cstdio>
#include <mutex>

#include <unistd.h>

namespace
{

std::mutex lock;          // a leaf; guards the streams and the flags
QByteArray progressShown; // empty: none
bool outputLost = false;

void clearProgress()
{
    if (!progressShown.isEmpty()) {
        progressShown.clear();
        std::fputs("\r\x1b[K", stderr);
        std::fflush(stderr);
    }
}

void write(std::FILE* stream, const QByteArray& bytes)
{
    const std::lock_guard guard(lock);
    clearProgress();
    std::fwrite(bytes.constData(), 1, static_cast<std::size_t>(bytes.size()), stream);
    std::fflush(stream);
    outputLost = outputLost || (stream == stdout && std::ferror(stdout) != 0);
}

} // namespace

void output::line(const QString& text)
{
    write(stdout, text.toUtf8() + '\n');
}

void output::raw(const QByteArray& bytes)
{
    write(stdout, bytes);
}

bool output::lost()
{
    const std::lock_guard guard(lock);
    return outputLost;
}

void output::checkLoss()
{
    if (lost()) {
        throw ToolError(exitcode::failed, QStringLiteral("standard output could not be written"));
    }
}

void output::error(const QString& text)
{
    write(stderr, text.toUtf8() + '\n');
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
