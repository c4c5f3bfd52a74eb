// SPDX-License-Identifier: MIT
#include "hidemulation.h"

#include "hidsimulator.h"
#include "output.h"
#include "toolerror.h"
#include "toolfiles.h"

#include <glib.h>

#include <cstdlib>
#include <cstring>
#include <mutex>

#include <fcntl.h>
#include <unistd.h>

namespace
{

constexpr qint64 filesOfADevice =
    qint64{256} * 1024; // forty small ones, each in a block of its own

std::mutex warningLock; // a leaf
QString warning;        // GLib's first one

QString refusal(const QString& reason)
{
    return toolfiles::noRoom("the files of a simulated USB device", reason);
}

// GLib ends the process where a file cannot be made: it ends in the tool's way.
[[noreturn]] void end(const QString& reason)
{
    output::error("coremanage: " + refusal(reason));
    std::exit(exitcode::linkDown);
}

GLogWriterOutput takeMessage(GLogLevelFlags level, const GLogField* fields, gsize count,
                             gpointer /*data*/)
{
    for (gsize i = 0; i < count; ++i) {
        if (std::strcmp(fields[i].key, "MESSAGE") != 0) {
            continue;
        }
        const QString message = QString::fromUtf8(static_cast<const char*>(fields[i].value),
                                                  static_cast<int>(fields[i].length));
        if ((level & G_LOG_LEVEL_ERROR) != 0) {
            end(message);
        }
        const std::lock_guard guard(warningLock);
        if ((level & (G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING)) != 0 && warning.isEmpty()) {
            warning = message;
        }
    }
    return G_LOG_WRITER_HANDLED;
}

void takeFailedAssertion(const gchar* text)
{
    end(QString::fromUtf8(text));
}

// Of some files umockdev only warns, and the device does not answer without them.
class WatchedHidSimulator : public HidSimulator
{
public:
    using HidSimulator::HidSimulator;

    bool open() override
    {
        const bool serves = HidSimulator::open();
        const std::lock_guard guard(warningLock);
        if (serves && warning.isEmpty()) {
            return true;
        }
        fail(refusal(serves ? warning : error()));
        return false;
    }
};

// An emulated device is a pseudo-terminal. A session leader without a terminal, such as the first
// process of a container, would take it for its own and be hung up with it: it gets another one.
void takeTerminal()
{
    const int master = getsid(0) == getpid() ? posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC) : -1;
    if (master >= 0 && unlockpt(master) == 0) {
        (void)open(ptsname(master), O_RDWR | O_CLOEXEC); // does nothing where there is one
    }
}

} // namespace

void hidemulation::prepare(char** /*arguments*/)
{
    takeTerminal();
    g_log_set_writer_func(takeMessage, nullptr, nullptr);
    g_set_printerr_handler(takeFailedAssertion);
}

QString hidemulation::obstacle()
{
    return {};
}

std::unique_ptr<Simulation> hidemulation::device(quint16 vendorId, quint16 productId,
                                                 const SimulatedDevice::Settings& settings)
{
    toolfiles::requireRoom(filesOfADevice);
    qputenv("TMPDIR",
            toolfiles::temporaryPath().toLocal8Bit()); // what umockdev leaves there goes, too
    return std::make_unique<WatchedHidSimulator>(vendorId, productId, settings);
}
