// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <netinet/in.h>
#include <poll.h>

/// A device at the other end of a link that answers, floods, hangs, dies and comes back as it is
/// told. Any thread may call any operation; none blocks.
class Peer
{
public:
    Peer() = default;
    virtual ~Peer() = default;
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    void answerWith(const QByteArray& reply);      ///< to whatever comes
    void flood(const QByteArray& bytes);           ///< sends as much of this as the medium takes
    void hang(std::chrono::milliseconds duration); ///< takes nothing for so long
    void die(bool reset);                          ///< as pulling the cable, or as a crash
    bool comeBack();                               ///< whether it is there; it may have died
    virtual bool diesWithoutDescriptors() const { return true; } ///< though there are none left

    /// Ends its hanging when the time is over; the descriptors to watch otherwise.
    std::vector<pollfd> watched();
    void serve(int descriptor); ///< something has come there

protected:
    using Clock = std::chrono::steady_clock;

    // Each is called under the lock.
    virtual bool connect() = 0;
    virtual void disconnect(bool reset) = 0;
    virtual std::vector<int> descriptors() const = 0;
    virtual void receive(int descriptor) = 0;
    virtual void send(const QByteArray& bytes) = 0;
    virtual void hold(bool /*on*/) {}

    std::mutex lock; // everything here and in the derived classes
    QByteArray answer;
    bool isThere = false;

private:
    Clock::time_point hangsUntil{};
};

class UdpDevice : public Peer
{
public:
    static constexpr int port = 2000;

private:
    bool connect() override;
    void disconnect(bool reset) override;
    std::vector<int> descriptors() const override { return {socket}; }
    void receive(int descriptor) override;
    void send(const QByteArray& bytes) override;

    int socket = -1;
    sockaddr_in host{};
};

class PtyDevice : public Peer
{
public:
    QString portName(); ///< changes each time it comes back

private:
    bool connect() override;
    void disconnect(bool reset) override;
    std::vector<int> descriptors() const override { return {master}; }
    void receive(int descriptor) override;
    void send(const QByteArray& bytes) override;

    int master = -1;
    int hostEnd = -1;
    std::string name;
};

class TcpDevice : public Peer
{
public:
    static constexpr int port = 2001;

private:
    bool connect() override;
    void disconnect(bool reset) override;
    std::vector<int> descriptors() const override;
    void receive(int descriptor) override;
    void send(const QByteArray& bytes) override;

    int listener = -1;
    std::vector<int> connections;
};

/// The thread that serves peers.
class PeerThread
{
public:
    explicit PeerThread(std::vector<Peer*> served);
    ~PeerThread();
    PeerThread(const PeerThread&) = delete;
    PeerThread& operator=(const PeerThread&) = delete;

private:
    void run();

    const std::vector<Peer*> peers;
    std::atomic<bool> goesOn{true};
    std::thread thread;
};
