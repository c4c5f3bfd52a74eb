// SPDX-License-Identifier: MIT
#include "osdsimulator.h"

#include "bindfailure.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>
#include <list>
#include <mutex>
#include <thread>
#include <utility>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

using Clock = std::chrono::steady_clock;

constexpr int shortestFrame = 8;
constexpr std::chrono::milliseconds quietMoment{5};
constexpr std::chrono::milliseconds longestPause{1000};
constexpr std::size_t readSize = std::size_t{64} * 1024;
constexpr int backlog = 128;

struct Chunk {
    Clock::time_point due;
    QByteArray bytes;
};

struct Client {
    int descriptor = -1;
    QByteArray pending; // received, not yet a command
    qint64 receivedBytes = 0;
    qint64 closeAfter = -1; // bytes; negative: never
    Clock::time_point lastByte;
    std::deque<Chunk> output;
    bool over = false;
    bool reset = false;
};

struct Address {
    sockaddr_storage storage{};
    socklen_t length = 0;
    sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
};

std::optional<Address> addressOf(const QString& text, quint16 port)
{
    Address address;
    const QByteArray plain = text.toLatin1();
    auto* const v4 = reinterpret_cast<sockaddr_in*>(&address.storage);
    auto* const v6 = reinterpret_cast<sockaddr_in6*>(&address.storage);
    if (inet_pton(AF_INET, plain.constData(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(port);
        address.length = sizeof *v4;
        return address;
    }
    if (inet_pton(AF_INET6, plain.constData(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(port);
        address.length = sizeof *v6;
        return address;
    }
    return std::nullopt;
}

quint16 portOf(const sockaddr_storage& storage)
{
    return ntohs(storage.ss_family == AF_INET6
                     ? reinterpret_cast<const sockaddr_in6&>(storage).sin6_port
                     : reinterpret_cast<const sockaddr_in&>(storage).sin_port);
}

} // namespace

struct OsdSimulator::Server {
    explicit Server(OsdSimulatorOptions given)
        : options(std::move(given)), faults(options.faults), random(options.seed)
    {
    }

    bool bindTo(Address local);
    bool openListener();
    void applyRefusal() const;
    void faultsChanged() const;
    void serve();
    void wake() const;
    int pauseMs() const;
    void acceptAll();
    void read(Client& client);
    void cutCommands(Client& client, bool quiet);
    void take(Client& client, const QByteArray& command);
    static void answer(Client& client, const Exchange& exchange);
    void write(Client& client);
    void tend(Client& client, short events);
    void hangUp(Client& client, bool reset) const;
    bool strikes(Fault fault, Exchange& exchange);
    Exchange exchangeFor(const QByteArray& command);
    std::chrono::milliseconds pauseOf(Fault fault) const;
    bool isGood(const QByteArray& command) const;
    QByteArray garbage();

    const OsdSimulatorOptions options;
    int wakeUp = -1;
    int listener = -1;
    std::atomic<quint16> boundPort{0};
    std::atomic<bool> ending{false};
    std::thread thread;

    // Guards everything below; held by the thread except while it waits and while onExchange runs.
    mutable std::mutex lock;
    Faults faults;
    SeededRandom random;
    std::list<Client> clients;
    QString failure;
    QByteArray received;
    std::vector<QByteArray> commands;
    std::vector<quint16> peerPorts;
    std::vector<Exchange> toTell;
    int bad = 0;
    qint64 badBytes = 0;
    qint64 answers = 0;
    qint64 sentBytes = 0;
};

bool OsdSimulator::Server::bindTo(Address local)
{
    listener = socket(local.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (listener < 0 || bind(listener, local.get(), local.length) != 0) {
        failure = bindfailure::reason(errno, options.port);
        return false;
    }
    getsockname(listener, local.get(), &local.length);
    boundPort = portOf(local.storage);
    return true;
}

bool OsdSimulator::Server::openListener()
{
    auto local = addressOf(options.address, options.port);
    if (!local) {
        failure = QStringLiteral("\"%1\" is no IP address").arg(options.address);
        return false;
    }
    if (options.port == 0) { // a port that was asked for stays when nothing listens on it
        if (!bindTo(*local)) {
            return false;
        }
        close(listener);
        local = addressOf(options.address, boundPort);
    }
    return bindTo(*local);
}

// A socket that is bound but does not listen keeps the port and has the system refuse connections.
void OsdSimulator::Server::applyRefusal() const
{
    int listening = 0;
    socklen_t length = sizeof listening;
    getsockopt(listener, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length);
    if (faults.lasts(Fault::Refuse) && listening != 0) {
        shutdown(listener, SHUT_RD);
    } else if (!faults.lasts(Fault::Refuse) && listening == 0) {
        listen(listener, backlog);
    }
}

void OsdSimulator::Server::faultsChanged() const
{
    if (thread.joinable()) {
        applyRefusal();
        wake();
    }
}

void OsdSimulator::Server::wake() const
{
    const quint64 one = 1;
    [[maybe_unused]] const auto written = ::write(wakeUp, &one, sizeof one);
}

int OsdSimulator::Server::pauseMs() const
{
    auto until = Clock::now() + longestPause;
    for (const Client& client : clients) {
        if (!client.output.empty() && client.output.front().due > Clock::now()) {
            until = std::min(until, client.output.front().due);
        }
        if (!options.dataLength && !client.pending.isEmpty()) {
            until = std::min(until, client.lastByte + quietMoment);
        }
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
    return std::max(0, static_cast<int>(left.count()));
}

void OsdSimulator::Server::serve()
{
    std::unique_lock locked(lock);
    while (!ending) {
        std::vector<pollfd> waits{{wakeUp, POLLIN, 0}, {listener, POLLIN, 0}};
        for (const Client& client : clients) {
            const bool writes = !client.output.empty() && client.output.front().due <= Clock::now();
            waits.push_back({client.descriptor,
                             static_cast<short>((faults.lasts(Fault::NeverRead) ? 0 : POLLIN) |
                                                (writes ? POLLOUT : 0)),
                             0});
        }
        const int pause = pauseMs();
        locked.unlock();
        poll(waits.data(), waits.size(), pause);
        locked.lock();
        quint64 count = 0;
        [[maybe_unused]] const auto drained = ::read(wakeUp, &count, sizeof count);
        auto wait = waits.begin() + 2;
        for (Client& client : clients) { // what was accepted since is at the end
            tend(client, wait == waits.end() ? short{0} : (wait++)->revents);
        }
        clients.remove_if([](const Client& client) { return client.descriptor < 0; });
        acceptAll();
        std::vector<Exchange> told;
        told.swap(toTell);
        if (!told.empty()) {
            locked.unlock();
            for (const Exchange& exchange : told) {
                options.onExchange(exchange);
            }
            locked.lock();
        }
    }
}

void OsdSimulator::Server::tend(Client& client, short events)
{
    if (!client.over && (events & (POLLIN | POLLHUP | POLLERR)) != 0) {
        if (faults.lasts(Fault::NeverRead)) {
            client.over = (events & (POLLHUP | POLLERR)) != 0;
        } else {
            read(client);
        }
    }
    const bool quiet = client.lastByte + quietMoment <= Clock::now();
    cutCommands(client, quiet);
    write(client);
    if (client.over) {
        hangUp(client, client.reset);
    }
}

void OsdSimulator::Server::acceptAll()
{
    for (;;) {
        sockaddr_storage peer{};
        socklen_t length = sizeof peer;
        const int descriptor = accept4(listener, reinterpret_cast<sockaddr*>(&peer), &length,
                                       SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (descriptor < 0) {
            return;
        }
        const int on = 1;
        setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        peerPorts.push_back(portOf(peer));
        Client client;
        client.descriptor = descriptor;
        client.lastByte = Clock::now();
        if (faults.strikes(Fault::CloseAfter, random)) {
            client.closeAfter = faults.amount(Fault::CloseAfter);
        }
        clients.push_back(std::move(client));
    }
}

void OsdSimulator::Server::read(Client& client)
{
    QByteArray bytes(static_cast<int>(readSize), Qt::Uninitialized);
    const auto size = recv(client.descriptor, bytes.data(), readSize, 0);
    if (size == 0 || (size < 0 && errno != EAGAIN && errno != EINTR)) {
        client.over = true;
        return;
    }
    if (size < 0) {
        return;
    }
    bytes.resize(static_cast<int>(size));
    received.append(bytes);
    client.pending.append(bytes);
    client.receivedBytes += size;
    client.lastByte = Clock::now();
    client.over = client.closeAfter >= 0 && client.receivedBytes >= client.closeAfter;
}

void OsdSimulator::Server::cutCommands(Client& client, bool quiet)
{
    if (options.dataLength) {
        const int length = shortestFrame + *options.dataLength;
        int next = 0;
        for (; client.pending.size() - next >= length; next += length) {
            take(client, client.pending.mid(next, length));
        }
        client.pending.remove(0, next);
    } else if (quiet && !client.pending.isEmpty()) {
        take(client, std::exchange(client.pending, QByteArray()));
    }
}

bool OsdSimulator::Server::isGood(const QByteArray& command) const
{
    return command.size() >= shortestFrame && command.startsWith(options.head) &&
           command.endsWith(options.tail);
}

void OsdSimulator::Server::take(Client& client, const QByteArray& command)
{
    if (!isGood(command)) {
        ++bad;
        badBytes += command.size();
        return;
    }
    commands.push_back(command);
    const Exchange exchange = exchangeFor(command);
    answers += exchange.answer.empty() ? 0 : exchange.times;
    answer(client, exchange);
    if (options.onExchange) {
        toTell.push_back(exchange);
    }
}

std::chrono::milliseconds OsdSimulator::Server::pauseOf(Fault fault) const
{
    return std::chrono::milliseconds(faults.amount(fault));
}

Exchange OsdSimulator::Server::exchangeFor(const QByteArray& command)
{
    Exchange exchange;
    exchange.command.block = command;
    if (strikes(Fault::Reset, exchange) || strikes(Fault::Drop, exchange)) {
        return exchange;
    }
    const QByteArray acknowledgement =
        QByteArray("OK").append(options.status.value_or(command.at(0)));
    if (strikes(Fault::HangUp, exchange)) {
        exchange.answer.push_back({acknowledgement.left(1), {}});
        return exchange;
    }
    if (strikes(Fault::Garbage, exchange)) {
        exchange.answer.push_back({garbage(), {}});
    }
    if (strikes(Fault::Split, exchange)) {
        for (const char byte : acknowledgement) {
            exchange.answer.push_back({QByteArray(1, byte), pauseOf(Fault::Split)});
        }
    } else {
        exchange.answer.push_back({acknowledgement, {}});
    }
    if (strikes(Fault::Flood, exchange)) {
        exchange.times = faults.amount(Fault::Flood);
    }
    if (strikes(Fault::Delay, exchange)) {
        exchange.answer.front().after += pauseOf(Fault::Delay);
    }
    return exchange;
}

void OsdSimulator::Server::answer(Client& client, const Exchange& exchange)
{
    const auto struck = [&exchange](Fault fault) {
        return std::find(exchange.faults.begin(), exchange.faults.end(), fault) !=
               exchange.faults.end();
    };
    auto due = Clock::now();
    const bool atOnce = exchange.answer.size() == 1;
    for (int i = 0; i < (atOnce ? 1 : exchange.times); ++i) {
        for (const Emission& emission : exchange.answer) {
            due += emission.after;
            client.output.push_back(
                {due, atOnce ? emission.bytes.repeated(exchange.times) : emission.bytes});
        }
    }
    client.reset = client.reset || struck(Fault::Reset);
    client.over = client.over || client.reset || struck(Fault::HangUp);
}

void OsdSimulator::Server::write(Client& client)
{
    while (!client.reset && !client.output.empty() && client.output.front().due <= Clock::now()) {
        QByteArray& bytes = client.output.front().bytes;
        const auto size = ::send(client.descriptor, bytes.constData(),
                                 static_cast<std::size_t>(bytes.size()), MSG_NOSIGNAL);
        if (size < 0) {
            client.over = errno != EAGAIN && errno != EINTR;
            return;
        }
        bytes.remove(0, static_cast<int>(size));
        sentBytes += size;
        if (!bytes.isEmpty()) {
            return;
        }
        client.output.pop_front();
    }
}

void OsdSimulator::Server::hangUp(Client& client, bool reset) const
{
    if (reset) {
        const linger now{1, 0};
        setsockopt(client.descriptor, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    }
    close(client.descriptor);
    client.descriptor = -1;
}

bool OsdSimulator::Server::strikes(Fault fault, Exchange& exchange)
{
    const bool struck = faults.strikes(fault, random);
    if (struck) {
        exchange.faults.push_back(fault);
    }
    return struck;
}

QByteArray OsdSimulator::Server::garbage()
{
    QByteArray bytes;
    while (bytes.size() < faults.amount(Fault::Garbage)) {
        const auto byte = static_cast<char>(random.below(256));
        bytes.append(byte == 'O' || byte == 'K' ? '.' : byte);
    }
    return bytes;
}

OsdSimulator::OsdSimulator(OsdSimulatorOptions options)
    : server(std::make_unique<Server>(std::move(options)))
{
}

OsdSimulator::~OsdSimulator()
{
    server->ending = true;
    if (server->thread.joinable()) {
        server->wake();
        server->thread.join();
    }
    for (Client& client : server->clients) {
        server->hangUp(client, false);
    }
    for (const int descriptor : {server->listener, server->wakeUp}) {
        if (descriptor >= 0) {
            close(descriptor);
        }
    }
}

bool OsdSimulator::start()
{
    const std::lock_guard locked(server->lock);
    if (server->thread.joinable() || !server->openListener()) {
        return false;
    }
    server->applyRefusal();
    server->wakeUp = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    server->thread = std::thread([this] { server->serve(); });
    return true;
}

QString OsdSimulator::error() const
{
    const std::lock_guard locked(server->lock);
    return server->failure;
}

quint16 OsdSimulator::port() const
{
    return server->boundPort;
}

void OsdSimulator::setFaults(const Faults& faults)
{
    const std::lock_guard locked(server->lock);
    server->faults = faults;
    server->faultsChanged();
}

void OsdSimulator::setFault(Fault fault, const Faults::Setting& setting)
{
    const std::lock_guard locked(server->lock);
    server->faults.set(fault, setting);
    server->faultsChanged();
}

void OsdSimulator::hangUp(bool reset)
{
    const std::lock_guard locked(server->lock);
    for (Client& client : server->clients) {
        client.over = true;
        client.reset = reset;
    }
    server->wake();
}

void OsdSimulator::send(const QByteArray& bytes)
{
    const std::lock_guard locked(server->lock);
    for (Client& client : server->clients) {
        client.output.push_back({Clock::now(), QByteArray(bytes.constData(), bytes.size())});
    }
    server->wake();
}

int OsdSimulator::accepted() const
{
    const std::lock_guard locked(server->lock);
    return static_cast<int>(server->peerPorts.size());
}

int OsdSimulator::connected() const
{
    const std::lock_guard locked(server->lock);
    return static_cast<int>(server->clients.size());
}

int OsdSimulator::good() const
{
    const std::lock_guard locked(server->lock);
    return static_cast<int>(server->commands.size());
}

int OsdSimulator::bad() const
{
    const std::lock_guard locked(server->lock);
    return server->bad;
}

qint64 OsdSimulator::badBytes() const
{
    const std::lock_guard locked(server->lock);
    return server->badBytes;
}

qint64 OsdSimulator::sentBytes() const
{
    const std::lock_guard locked(server->lock);
    return server->sentBytes;
}

bool OsdSimulator::isIdle() const
{
    const std::lock_guard locked(server->lock);
    return std::all_of(server->clients.begin(), server->clients.end(),
                       [](const Client& client) { return client.output.empty(); });
}

qint64 OsdSimulator::answers() const
{
    const std::lock_guard locked(server->lock);
    return server->answers;
}

QByteArray OsdSimulator::received() const
{
    const std::lock_guard locked(server->lock);
    return server->received;
}

qint64 OsdSimulator::receivedBytes() const
{
    const std::lock_guard locked(server->lock);
    return server->received.size();
}

std::vector<QByteArray> OsdSimulator::commands() const
{
    const std::lock_guard locked(server->lock);
    return server->commands;
}

std::vector<quint16> OsdSimulator::peerPorts() const
{
    const std::lock_guard locked(server->lock);
    return server->peerPorts;
}
