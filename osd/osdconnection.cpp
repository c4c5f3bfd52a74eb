// SPDX-License-Identifier: MIT
#include "osdconnection.h"

#include "core_osd_tcpsocket.h"
#include "fixedlocalport.h"
#include "lingeringclose.h"
#include "osdframe.h"
#include "utility_manage.h"

#include <QElapsedTimer>
#include <QHostAddress>

#include <array>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <system_error>
#include <utility>

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr int writeWaitMs = 2000;
constexpr int hangUpWaitMs = 3000;
constexpr int waitSliceMs = 10;    // how soon a wait notices that it has become pointless
constexpr int idleWaitMs = 20;     // how soon a parser without bytes notices a stop
constexpr int repetitionLimit = 4; // an endpoint that does not answer is given up after 31 s
constexpr int chunkSize = 64 * 1024;
constexpr std::chrono::milliseconds endLimit{500};
constexpr std::chrono::milliseconds lossPause{100}; // for the parser to come to its end

// Qt ends the process when an event loop gets no descriptor: there must be one for it, one for the
// socket, and some for what other threads of the process open at that moment.
constexpr rlim_t descriptorsNeeded = 2 + 4;

bool hasDescriptors()
{
    rlimit limit{};
    (void)getrlimit(RLIMIT_NOFILE, &limit);
    std::error_code error;
    const std::filesystem::directory_iterator open("/proc/self/fd", error);
    const auto count = static_cast<rlim_t>(std::distance(begin(open), end(open)));
    return error != std::errc::too_many_files_open && count + descriptorsNeeded <= limit.rlim_cur;
}

// A connection that was refused has no peer.
bool isReached(int descriptor)
{
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    return getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &length) == 0;
}

bool mayGoOn()
{
    return errno == EAGAIN || errno == EINTR;
}

} // namespace

OsdConnection::OsdConnection(Core_Osd_TcpSocket* of) : owner(of) {}

OsdConnection::~OsdConnection()
{
    disconnectSignals();
}

void OsdConnection::begin()
{
    const bool mayEnd = !endpoint.token.isSet() && QThread::currentThread() != this;
    if (!endpoint.token.awaitEnd(mayEnd ? endLimit : std::chrono::milliseconds(0))) {
        return;
    }
    if (startThreads()) {
        connectSignals();
        open();
    } else {
        logShortage();
    }
}

bool OsdConnection::startThreads()
{
    static std::mutex oneByOne; // no other start takes the descriptors that this one has counted
    const std::lock_guard lock(oneByOne);
    if (!hasDescriptors()) {
        return false;
    }
    lost = false;
    running = true;
    start();
    while (isRunning() && eventDispatcher() == nullptr) {
        msleep(1);
    }
    const auto keeper = [self = shared_from_this()] {
        self->endpoint.token.run([&self] { self->keep(); });
    };
    if (isRunning() || isFinished()) {
        if (endpoint.token.start(keeper)) {
            return true;
        }
        quit();
        awaitThread();
    }
    return false;
}

void OsdConnection::run()
{
    exec();
    endpoint.token.set(false); // a host may have begun it while this thread was being ended
    if (lost) {
        std::this_thread::sleep_for(lossPause);
        const std::lock_guard lock(ownerLock);
        if (owner != nullptr && !processend::over()) {
            Q_EMIT owner->closeSocket();
        }
    }
    running = false;
}

void OsdConnection::keep()
{
    endpoint.deal([this] { look(true); });
    awaitThread();
    closeSocket();
    endpoint.tellNoted();
}

// The end of the process waits for who is in here, and not for the thread.
void OsdConnection::awaitThread()
{
    while (running) {
        if (lost || processend::begun()) {
            quit();
        }
        msleep(waitSliceMs);
    }
    wait();
}

void OsdConnection::forgetOwner()
{
    const std::lock_guard lock(ownerLock);
    owner = nullptr;
}

void OsdConnection::logShortage() const
{
    if (processend::over()) {
        return;
    }
    const OsdEndpoint::Address address = endpoint.address();
    Utility_Manage::writeLog(
        QStringLiteral("OSD endpoint %1, port %2: not connected, no descriptor or thread left")
            .arg(address.ip)
            .arg(address.port));
}

void OsdConnection::connectSignals()
{
    disconnectSignals();
    const std::lock_guard lock(recordsLock);
    records = OsdRecords::shared();
    if (records) {
        records->add(this, [this](const model_OsdParam& record) { take(record); });
    }
    listening = true;
}

void OsdConnection::disconnectSignals()
{
    const std::lock_guard lock(recordsLock);
    if (records) {
        records->remove(this);
        records.reset();
    }
    listening = false;
}

void OsdConnection::open()
{
    closeSocket();
    std::unique_lock lock(socketLock);
    if (!endpoint.token.goesOn() || !endpoint.token.isRunning()) {
        return;
    }
    const int error = connectSocket(endpoint.address());
    if (error != 0) {
        lose();
    }
    lock.unlock();
    if (error == EMFILE || error == ENFILE) {
        logShortage();
    }
}

// Zero, or the error.
int OsdConnection::connectSocket(const OsdEndpoint::Address& address)
{
    addrinfo wanted{};
    wanted.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    wanted.ai_socktype = SOCK_STREAM;
    const QByteArray ip = QHostAddress(address.ip).toString().toLatin1(); // empty if it is none
    const QByteArray port = QByteArray::number(static_cast<quint16>(address.port));
    addrinfo* found = nullptr;
    if (getaddrinfo(ip.constData(), port.constData(), &wanted, &found) != 0) {
        return EINVAL;
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> to(found, &freeaddrinfo);
    descriptor = socket(to->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        return errno;
    }
    sockaddr_in6 own{}; // an IPv4 one has its family and its port in the same places
    own.sin6_family = static_cast<sa_family_t>(to->ai_family);
    own.sin6_port = htons(fixedLocalPort());
    // A port that is taken is no error, any other one will do.
    (void)bind(descriptor, reinterpret_cast<const sockaddr*>(&own), to->ai_addrlen);
    (void)setsockopt(descriptor, IPPROTO_TCP, TCP_SYNCNT, &repetitionLimit, sizeof repetitionLimit);
    const bool begun = ::connect(descriptor, to->ai_addr, to->ai_addrlen) == 0;
    return begun || errno == EINPROGRESS ? 0 : errno;
}

void OsdConnection::onConnected()
{
    const std::lock_guard lock(socketLock);
    bConnected = descriptor >= 0;
}

void OsdConnection::look(bool mayWait)
{
    std::unique_lock lock(socketLock);
    if (descriptor < 0 || !listening) {
        return;
    }
    const int whenSending = bConnected && !isPending() ? 0 : POLLOUT;
    pollfd state{descriptor, static_cast<short>(POLLIN | POLLRDHUP | whenSending), 0};
    const bool waits = mayWait && endpoint.received.size() < osdframe::acknowledgementLength;
    lock.unlock();
    (void)poll(&state, 1, waits ? idleWaitMs : 0);
    lock.lock();
    if (descriptor != state.fd || state.revents == 0) {
        return;
    }
    if (!bConnected && isReached(descriptor)) {
        endpoint.note(LinkEvent::Kind::Opened);
    }
    bConnected = true; // a connection that was refused, too: the first read tells
    // Once a hang-up is there, nothing more can come than the system holds already.
    exchange((state.revents & ~(POLLIN | POLLOUT)) != 0);
}

void OsdConnection::take(const model_OsdParam& record)
{
    if (endpoint.address().ip != record.strIP) {
        return;
    }
    const std::lock_guard lock(socketLock);
    if (bConnected) {
        pending.emplace_back([record] { return osdframe::encode(record); });
        exchange(false);
    }
}

void OsdConnection::send(const QByteArray& bytes)
{
    std::unique_lock lock(socketLock);
    if (bConnected) {
        pending.emplace_back([bytes] { return bytes; });
        deliver(lock, writeWaitMs, false);
    }
}

void OsdConnection::closeSocket()
{
    std::unique_lock lock(socketLock);
    deliver(lock, hangUpWaitMs, true);
    if (bConnected) {
        endpoint.note(LinkEvent::Kind::Closed);
        lingeringclose::begin(std::exchange(descriptor, -1));
    }
    closeDescriptor();
}

void OsdConnection::closeDescriptor()
{
    if (descriptor >= 0) {
        ::close(std::exchange(descriptor, -1));
    }
    pending.clear();
    frame.clear();
    sentOfFrame = 0;
    bConnected = false;
}

// Until the system has everything. An endpoint may wait for its answers to be read before it reads
// on, so they are read.
void OsdConnection::deliver(std::unique_lock<std::mutex>& lock, int limitMs, bool evenIfStopped)
{
    QElapsedTimer waited;
    waited.start();
    for (;;) {
        exchange(false);
        const bool goesOn = evenIfStopped ? !processend::begun() : endpoint.token.goesOn();
        if (!isPending() || !goesOn || waited.hasExpired(limitMs)) {
            return;
        }
        const bool full = endpoint.received.isFull();
        pollfd state{descriptor, static_cast<short>(full ? POLLOUT : POLLOUT | POLLIN), 0};
        lock.unlock();
        (void)poll(&state, 1, waitSliceMs);
        lock.lock();
    }
}

void OsdConnection::exchange(bool evenIfFull)
{
    if (bConnected && !(flush() && takeAvailable(evenIfFull))) {
        lose();
    }
}

void OsdConnection::lose()
{
    (void)takeAvailable(true);
    closeDescriptor();
    endpoint.note(LinkEvent::Kind::Lost);
    lost = lost || endpoint.token.isSet();
    endpoint.token.set(false);
}

// Gives the system what it takes. False if the connection is over.
bool OsdConnection::flush()
{
    while (isPending()) {
        if (sentOfFrame == frame.size()) {
            frame = pending.front()();
            pending.pop_front();
            sentOfFrame = 0;
        }
        const auto left = static_cast<std::size_t>(frame.size() - sentOfFrame);
        const ssize_t sent =
            ::send(descriptor, frame.constData() + sentOfFrame, left, MSG_NOSIGNAL);
        if (sent < 0) {
            const bool goesOn = mayGoOn();
            if (!goesOn) {
                endpoint.note(LinkEvent::Kind::SendFailed, frame.constData() + sentOfFrame,
                              static_cast<int>(left));
            }
            return goesOn;
        }
        endpoint.note(LinkEvent::Kind::Sent, frame.constData() + sentOfFrame,
                      static_cast<int>(sent));
        sentOfFrame += static_cast<int>(sent);
    }
    return true;
}

// False if the connection is over. It is held back by TCP instead of filling the memory if it sends
// faster than its acknowledgements can be taken.
bool OsdConnection::takeAvailable(bool evenIfFull)
{
    std::array<char, chunkSize> bytes; // NOLINT(cppcoreguidelines-pro-type-member-init): 64 KiB
    while (evenIfFull || !endpoint.received.isFull()) {
        const ssize_t size = recv(descriptor, bytes.data(), bytes.size(), 0);
        if (size <= 0) {
            return size < 0 && mayGoOn();
        }
        endpoint.received.append(bytes.data(), static_cast<int>(size));
        endpoint.note(LinkEvent::Kind::Received, bytes.data(), static_cast<int>(size));
    }
    return true;
}
