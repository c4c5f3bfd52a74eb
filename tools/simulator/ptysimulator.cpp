// SPDX-License-Identifier: MIT
#include "ptysimulator.h"

#include <QFile>
#include <QFileInfo>

#include <array>
#include <cstdlib>

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

namespace
{

// Whether it is the link of a process that was killed before it could remove it. The system reuses
// terminal numbers, so the link may lead to the terminal that has just been made.
bool isLeftOver(const QFileInfo& file, const QString& terminal)
{
    const QString target = file.symLinkTarget();
    return file.isSymLink() && (target == terminal ||
                                (!file.exists() && target.startsWith(QLatin1String("/dev/pts/"))));
}

} // namespace

PtySimulator::PtySimulator(const QString& addressScheme, const QString& chosenPath,
                           const SimulatedDevice::Settings& settings)
    : SimulatedLink(Medium::Stream, settings), scheme(addressScheme), path(chosenPath)
{
}

PtySimulator::~PtySimulator()
{
    closeTerminal();
    if (named) {
        QFile::remove(path);
    }
}

bool PtySimulator::open()
{
    return openTerminal() && nameIt();
}

QString PtySimulator::address() const
{
    return QStringLiteral("%1://%2").arg(scheme, path.isEmpty() ? terminal : path);
}

bool PtySimulator::openTerminal()
{
    master = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    std::array<char, 64> name{};
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0 ||
        ptsname_r(master, name.data(), name.size()) != 0) {
        fail(QStringLiteral("the system gives no pseudo-terminal: ") + qt_error_string());
        return false;
    }
    terminal = QFile::decodeName(name.data());
    hostEnd = ::open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios raw{};
    tcgetattr(master, &raw);
    cfmakeraw(&raw); // nothing is echoed before a host has opened it
    tcsetattr(master, TCSANOW, &raw);
    readable = std::make_unique<QSocketNotifier>(master, QSocketNotifier::Read);
    connect(readable.get(), &QSocketNotifier::activated, this, &PtySimulator::readAll);
    writable = std::make_unique<QSocketNotifier>(master, QSocketNotifier::Write);
    writable->setEnabled(false);
    connect(writable.get(), &QSocketNotifier::activated, this, &PtySimulator::writePending);
    return true;
}

bool PtySimulator::nameIt()
{
    if (path.isEmpty()) {
        return true;
    }
    const QFileInfo there(path);
    const bool isOurs = named || isLeftOver(there, terminal);
    if (!isOurs && (there.exists() || there.isSymLink())) {
        fail(QStringLiteral("%1 exists: give another path, or none").arg(path));
        return false;
    }
    if (isOurs) {
        QFile::remove(path);
    }
    named = QFile::link(terminal, path);
    if (!named) {
        fail(QStringLiteral("%1 cannot be made: %2").arg(path, qt_error_string()));
    }
    return named;
}

void PtySimulator::closeTerminal()
{
    readable.reset();
    writable.reset();
    pending.clear();
    for (int* descriptor : {&master, &hostEnd}) {
        if (*descriptor >= 0) {
            close(*descriptor);
            *descriptor = -1;
        }
    }
}

void PtySimulator::hangUp(Fault /*how*/)
{
    // Not from within a notifier of the terminal that goes.
    QMetaObject::invokeMethod(
        this,
        [this] {
            closeTerminal();
            if (path.isEmpty()) {
                Q_EMIT lost(QStringLiteral("hung up, as asked"));
            } else if (!open()) {
                Q_EMIT lost(error());
            }
        },
        Qt::QueuedConnection);
}

void PtySimulator::readAll()
{
    std::array<char, 4096> chunk{};
    for (ssize_t size = 0; (size = read(master, chunk.data(), chunk.size())) > 0;) {
        received(QByteArray(chunk.data(), static_cast<int>(size)),
                 [this](const QByteArray& bytes) { return write(bytes); });
    }
}

qint64 PtySimulator::write(const QByteArray& bytes)
{
    if (master < 0) {
        return -1;
    }
    pending.append(bytes);
    writePending();
    return bytes.size();
}

void PtySimulator::writePending()
{
    const ssize_t size =
        ::write(master, pending.constData(), static_cast<std::size_t>(pending.size()));
    if (size > 0) {
        pending.remove(0, static_cast<int>(size));
    }
    writable->setEnabled(!pending.isEmpty());
}
