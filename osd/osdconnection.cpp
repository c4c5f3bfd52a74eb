// SPDX-License-Identifier: MIT
#include "osdconnection.h"

#include "core_osd_tcpsocket.h"
#include "fixedlocalport.h"
#include "lingeringclose.h"
#include "osdframe.h"
#include "utility_manage.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QHostAddress>

#include <array>
#include <cerrno>
#include <filesystem>
#include <future>
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
constexpr int repetitionLimit = 4; // an endpoint that does not answer is given up after 31 s
constexpr int chunkSize = 64 * 1024;
constexpr std::chrono::milliseconds callLimit{3500}; // a hang-up takes up to 3000
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
    if (error) {
        return error != std::errc::too_many_files_open;
    }
    return static_cast<rlim_t>(std::distance(begin(open), end(open))) + descriptorsNeeded <=
           limit.rlim_cur;
}

using SystemAddress = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

// Null if the text is no address.
SystemAddress systemAddressOf(const OsdEndpoint::Address& endpoint)
{
    addrinfo wanted{};
    wanted.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    wanted.ai_socktype = SOCK_STREAM;
    const QByteArray ip = QHostAddress(endpoint.ip).toString().toLatin1();
    const QByteArray port = QByteArray::number(static_cast<quint16>(endpoint.port));
    addrinfo* found = nullptr;
    const bool valid = getaddrinfo(ip.constData(), port.constData(), &wanted, &found) == 0;
    return {valid ? found : nullptr, &freeaddrinfo};
}

bool beginToConnect(int descriptor, const addrinfo& to)
{
    sockaddr_in6 own{}; // an IPv4 one has its family and its port in the same places
    own.sin6_family = static_cast<sa_family_t>(to.ai_family);
    own.sin6_port = htons(fixedLocalPort());
    // A port that is taken is no error, any other one will do.
    (void)bind(descriptor, reinterpret_cast<const sockaddr*>(&own), to.ai_addrlen);
    (void)setsockopt(descriptor, IPPROTO_TCP, TCP_SYNCNT, &repetitionLimit, sizeof repetitionLimit);
    return connect(descriptor, to.ai_addr, to.ai_addrlen) == 0 || errno == EINPROGRESS;
}

bool hasHungUp(int descriptor)
{
    pollfd connection{descriptor, POLLRDHUP, 0};
    return poll(&connection, 1, 0) > 0;
}

bool mayGoOn()
{
    return errno == EAGAIN || errno == EINTR;
}

} // namespace

OsdConnection::OsdConnection(Core_Osd_TcpSocket* of) : owner(of)
{
    moveToThread(this);
}

bool OsdConnection::begin()
{
    const bool mayEnd = !endpoint.token.isSet() && QThread::currentThread() != this;
    if (!endpoint.token.awaitEnd(mayEnd ? endLimit : std::chrono::milliseconds(0))) {
        return false;
    }
    static std::mutex oneByOne; // no other start takes the descriptors that this one has counted
    const std::lock_guard lock(oneByOne);
    if (!hasDescriptors() || !startThreads()) {
        logShortage();
        return false;
    }
    call([](OsdConnection& connection) {
        connection.connectSignals();
        connection.open();
    });
    return true;
}

bool OsdConnection::startThreads()
{
    {
        const std::lock_guard lock(callLock);
        takesCalls = true;
    }
    running = true;
    start();
    const bool runs = isRunning() || isFinished();
    if (runs && endpoint.token.start([self = shared_from_this()] {
            self->endpoint.token.run([&self] { self->keep(); });
        })) {
        return true;
    }
    quit();
    wait();
    end();
    return false;
}

void OsdConnection::run()
{
    lost = false;
    exec();
    disconnectSignals();
    closeSocket();
    end();
    if (lost) {
        std::this_thread::sleep_for(lossPause);
        const std::lock_guard lock(ownerLock);
        if (owner != nullptr && !processend::over()) {
            Q_EMIT owner->closeSocket();
        }
    }
    running = false;
}

void OsdConnection::end()
{
    endpoint.token.set(false);
    const std::lock_guard lock(callLock);
    takesCalls = false;
    calls.clear();
}

// Only this tells the thread of the end of the process, and it is one that the process waits for.
void OsdConnection::keep()
{
    endpoint.deal();
    endpoint.token.set(false);
    while (running) {
        if (processend::begun()) {
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

void OsdConnection::take(const model_OsdParam& record)
{
    if (endpoint.address().ip == record.strIP) {
        post([this, record] { send(osdframe::encode(record)); });
    }
}

void OsdConnection::post(std::function<void()> function)
{
    const std::lock_guard lock(callLock);
    if (takesCalls) {
        calls.push_back(std::move(function));
        QCoreApplication::postEvent(this, new QEvent(QEvent::User));
    }
}

void OsdConnection::call(const Function& function)
{
    if (QThread::currentThread() == this) {
        if (takesCalls) {
            function(*this);
        }
        return;
    }
    // What never runs breaks its promise, which ends the wait, too.
    auto task = std::make_shared<std::packaged_task<void()>>([this, function] { function(*this); });
    const auto over = task->get_future();
    post([task = std::move(task)] { (*task)(); });
    (void)over.wait_for(callLimit);
}

void OsdConnection::customEvent(QEvent* /*event*/)
{
    std::function<void()> function = [] {}; // what was posted may have been dropped since
    {
        const std::lock_guard lock(callLock);
        if (!calls.empty()) {
            function = std::move(calls.front());
            calls.pop_front();
        }
    }
    function();
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

void OsdConnection::open()
{
    closeSocket();
    if (!endpoint.token.isSet()) {
        return;
    }
    const SystemAddress to = systemAddressOf(endpoint.address());
    descriptor = to ? socket(to->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0) : -1;
    if (to && descriptor < 0) {
        logShortage();
    }
    if (descriptor < 0 || !beginToConnect(descriptor, *to)) {
        lose();
        return;
    }
    readable = std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Read);
    writable = std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Write);
    connect(readable.get(), &QSocketNotifier::activated, this, &OsdConnection::onReadyRead);
    connect(writable.get(), &QSocketNotifier::activated, this, &OsdConnection::onWritable);
    updateNotifiers();
}

void OsdConnection::connectSignals()
{
    disconnectSignals();
    records = osdrecordsource::shared();
    if (records) {
        records->add(this, [this](const model_OsdParam& record) { take(record); });
    }
    listening = true;
    updateNotifiers();
}

void OsdConnection::disconnectSignals()
{
    if (records) {
        records->remove(this);
        records.reset();
    }
    listening = false;
    updateNotifiers();
}

void OsdConnection::updateNotifiers()
{
    if (readable) {
        readable->setEnabled(listening && bConnected);
        writable->setEnabled(listening && (!bConnected || pending.size() > 0));
    }
}

// So is a socket whose connection was refused; then the first read tells.
void OsdConnection::onWritable()
{
    if (flush()) {
        onConnected();
    } else {
        lose();
    }
}

void OsdConnection::onConnected()
{
    bConnected = descriptor >= 0;
    updateNotifiers();
}

void OsdConnection::lose()
{
    disconnectSignals();
    (void)takeAvailable(true);
    bConnected = false;
    endpoint.token.set(false);
    lost = true;
    quit();
}

void OsdConnection::onReadyRead()
{
    if (!bConnected) {
        return;
    }
    // Once a hang-up is there, nothing more can come than the system holds already.
    if (!takeAvailable(hasHungUp(descriptor))) {
        lose();
    } else if (endpoint.received.isFull()) {
        msleep(waitSliceMs);
    }
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
    }
    return true;
}

// Gives the system what it takes. False if the connection is over.
bool OsdConnection::flush()
{
    while (bConnected && pending.size() > 0) {
        const QByteArray bytes = pending.peek(chunkSize);
        const ssize_t sent = ::send(descriptor, bytes.constData(),
                                    static_cast<std::size_t>(bytes.size()), MSG_NOSIGNAL);
        if (sent < 0) {
            return mayGoOn();
        }
        pending.discard(static_cast<int>(sent));
    }
    return true;
}

// Until the system has everything. An endpoint may wait for its answers to be read before it reads
// on, so they are read. False if the connection is over.
bool OsdConnection::deliver(int limitMs, bool evenIfStopped)
{
    QElapsedTimer waited;
    waited.start();
    while (flush()) {
        const bool goOn = evenIfStopped ? !processend::begun() : endpoint.token.goesOn();
        if (pending.size() == 0 || waited.hasExpired(limitMs) || !goOn) {
            return true;
        }
        const bool full = endpoint.received.isFull();
        pollfd connection{descriptor, static_cast<short>(full ? POLLOUT : POLLOUT | POLLIN), 0};
        (void)poll(&connection, 1, waitSliceMs);
        if (!takeAvailable(false)) {
            return false;
        }
    }
    return false;
}

void OsdConnection::send(const QByteArray& bytes)
{
    if (!bConnected) {
        return;
    }
    pending.append(bytes);
    if (deliver(writeWaitMs, false)) {
        updateNotifiers();
    } else {
        lose();
    }
}

void OsdConnection::closeSocket()
{
    readable.reset();
    writable.reset();
    if (bConnected) {
        if (deliver(hangUpWaitMs, true)) {
            (void)takeAvailable(false);
        }
        lingeringclose::begin(std::exchange(descriptor, -1));
    } else if (descriptor >= 0) {
        ::close(std::exchange(descriptor, -1));
    }
    pending.clear();
    bConnected = false;
}
