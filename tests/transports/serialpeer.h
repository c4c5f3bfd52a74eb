// SPDX-License-Identifier: MIT
#pragma once

#include "eventually.h"

#include <QByteArray>
#include <QString>

#include <array>
#include <cstdlib>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

/// The device's side of a serial line, played by the test: the master of a pseudo-terminal.
class SerialPeer
{
public:
    SerialPeer() : master(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC))
    {
        grantpt(master);
        unlockpt(master);
        char name[64] = {};
        ptsname_r(master, name, sizeof name);
        slaveName = QString::fromLatin1(name);
        setRaw(name);
    }
    ~SerialPeer() { hangUp(); }
    SerialPeer(const SerialPeer&) = delete;
    SerialPeer& operator=(const SerialPeer&) = delete;

    /// What a transport opens.
    const QString& portName() const { return slaveName; }

    /// Sends everything, running the event loop while the line is full.
    bool send(const QByteArray& bytes)
    {
        int sent = 0;
        return eventually([&] {
            sent += offer(bytes.mid(sent));
            return sent == bytes.size();
        });
    }

    /// Everything received so far.
    const QByteArray& received()
    {
        while (receive(mostAtOnce) > 0) {
        }
        return input;
    }

    /// What has been received since the last time.
    QByteArray taken()
    {
        received();
        return std::exchange(input, QByteArray());
    }

    /// Takes so many bytes of what has come, mostAtOnce at most, and returns how many that were.
    int receive(int most)
    {
        std::array<char, mostAtOnce> chunk{};
        const auto wanted = qMin(chunk.size(), static_cast<std::size_t>(most));
        const int size = qMax(0, static_cast<int>(read(master, chunk.data(), wanted)));
        input.append(chunk.data(), size);
        return size;
    }

    /// Waits, without an event loop, until so many bytes have come. False if they do not.
    bool awaitReceived(qsizetype size)
    {
        while (received().size() < size) {
            pollfd line{master, POLLIN, 0};
            if (poll(&line, 1, 30000) <= 0 || (line.revents & POLLIN) == 0) {
                return received().size() >= size;
            }
        }
        return true;
    }

    /// Sends as much as the line takes now, and returns how many bytes that were.
    int offer(const QByteArray& bytes)
    {
        const ssize_t size =
            write(master, bytes.constData(), static_cast<std::size_t>(bytes.size()));
        return size > 0 ? static_cast<int>(size) : 0;
    }

    /// The settings that the line has now.
    termios settings() const
    {
        termios now{};
        tcgetattr(master, &now); // a pseudo-terminal's two ends share them
        return now;
    }

    /// As pulling the cable.
    void hangUp()
    {
        if (master >= 0) {
            ::close(master);
            master = -1;
        }
    }

    static constexpr int mostAtOnce = 4096;

private:
    // Nothing is to be echoed while no transport has opened the line.
    static void setRaw(const char* name)
    {
        const int slave = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
        termios raw{};
        tcgetattr(slave, &raw);
        cfmakeraw(&raw);
        tcsetattr(slave, TCSANOW, &raw);
        ::close(slave);
    }

    int master;
    QString slaveName;
    QByteArray input;
};
