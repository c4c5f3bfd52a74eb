// SPDX-License-Identifier: MIT
#include "osdconnection.h"

#include "core_osd_tcpsocket.h"
#include "detachedthread.h"
#include "fixedlocalport.h"
#include "lingeringclose.h"
#include "osdframe.h"
#include "processend.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QTimer>

#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <system_error>
#include <thread>
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
constexpr int mostRepetitions = 4; // an endpoint that does not answer is given up after 31 s
constexpr int chunkSize = 64 * 1024;
constexpr int heldBackMs = 20;
constexpr std::chrono::milliseconds waitPoll{1};
constexpr std::chrono::milliseconds callLimit{3500}; // a hang-up takes up to 3000
constexpr std::chrono::milliseconds endLimit{500};
constexpr std::chrono::milliseconds lossPause{100}; // for the parser to come to its end

// Event loops that get no descriptor end the process. So there must be some for all of those that
// are about to be made, for their sockets, and for what other threads of the process take
// meanwhile.
constexpr int descriptorsEach = 2; // the event loop's and the socket
constexpr int descriptorsSpare = 4;
std::mutex promiseLock;
int promised = 0; // descriptors that connections are about to take

// Counted, not tried: what a try takes would be missing in an event loop that is being made.
bool hasDescriptors(int count)
{
    rlimit limit{};
    (void)getrlimit(RLIMIT_NOFILE, &limit);
    std::error_code error;
    const std::filesystem::directory_iterator open("/proc/self/fd", error);
    if (error) {
        return error != std::errc::too_many_files_open;
    }
    return static_cast<rlim_t>(std::distance(begin(open), end(open)) + count) <= limit.rlim_cur;
}

bool promiseDescriptors()
{
    const std::lock_guard lock(promiseLock);
    promised += descriptorsEach;
    return hasDescriptors(promised + descriptorsSpare);
}

// Qt's own locks order what crosses threads with an event, or by wait(), but thread checkers do not
// know them: both sides come by here.
void showWrites()
{
    static std::mutex lock; // a leaf
    const std::lock_guard locker(lock);
}

// A function on its way to a connection's thread. The event queue deletes it when it has run and
// when it never will: either way who waits for it need not wait longer.
class Call : public QEvent
{
public:
    Call(OsdConnection::Function f, std::shared_ptr<std::atomic<bool>> o)
        : QEvent(User), function(std::move(f)), over(std::move(o))
    {
    }
    ~Call() override
    {
        showWrites();
        *over = true;
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    const OsdConnection::Function function;

private:
    const std::shared_ptr<std::atomic<bool>> over;
};

template <class Condition>
void pollUntil(Condition&& condition, std::chrono::milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(waitPoll);
    }
}

using Address = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

// Null if the text is no address.
Address addressOf(const OsdEndpoint& endpoint)
{
    addrinfo wanted{};
    wanted.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    wanted.ai_socktype = SOCK_STREAM;
    const QByteArray ip = QHostAddress(endpoint.ip()).toString().toLatin1();
    const QByteArray port = QByteArray::number(static_cast<quint16>(endpoint.port()));
    addrinfo* found = nullptr;
    const bool valid = getaddrinfo(ip.constData(), port.constData(), &wanted, &found) == 0;
    return {valid ? found : nullptr, &freeaddrinfo};
}

// A port that is taken is no error, any other one will do.
void bindToFixedPort(int descriptor, const addrinfo& to)
{
    sockaddr_in6 own{}; // an IPv4 one has its family and its port in the same places
    own.sin6_family = static_cast<sa_family_t>(to.ai_family);
    own.sin6_port = htons(fixedLocalPort());
    (void)bind(descriptor, reinterpret_cast<const sockaddr*>(&own), to.ai_addrlen);
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

OsdConnection::OsdConnection(std::shared_ptr<OsdEndpoint> to, Core_Osd_TcpSocket* of)
    : endpoint(std::move(to)), owner(of)
{
    moveToThread(this);
}

bool OsdConnection::begin()
{
    awaited = descriptorsEach;
    if (!promiseDescriptors()) {
        await(0);
        return false;
    }
    idle = false;
    begun = false;
    endpoint->begin();
    bool runs = startDetached([self = shared_from_this()] { self->keep(); });
    if (runs) {
        takesCalls = true;
        (void)post([from = osdrecordsource::shared()](OsdConnection& connection) {
            connection.connectSignals(from);
            connection.open();
            connection.await(0);
        });
        start();
        runs = isRunning() || isFinished();
        begun = true;
    } else {
        idle = true;
    }
    if (!runs) {
        end();
    }
    return runs;
}

void OsdConnection::run()
{
    await(1); // the event loop has its own
    lost = false;
    exec();
    disconnectSignals();
    closeDescriptor();
    end();
    if (lost) {
        std::this_thread::sleep_for(lossPause);
        const std::lock_guard lock(ownerLock);
        if (owner != nullptr && !processend::over()) {
            Q_EMIT owner->closeSocket();
        }
    }
    showWrites();
}

void OsdConnection::await(int descriptors)
{
    const std::lock_guard lock(promiseLock);
    promised -= awaited - descriptors;
    awaited = descriptors;
}

void OsdConnection::end()
{
    await(0);
    endpoint->stop(); // a host may have begun it while its thread was being ended
    const std::lock_guard lock(callLock);
    takesCalls = false;
    QCoreApplication::removePostedEvents(this);
}

// Only this tells the thread of the end of the process, and it is one that the process waits for.
void OsdConnection::keep()
{
    pollUntil([this] { return begun.load(); }, std::chrono::hours(1));
    endpoint->deal();
    endpoint->stop();
    do {
        if (processend::begun()) {
            quit();
        }
    } while (!wait(waitSliceMs));
    showWrites();
    idle = true;
}

void OsdConnection::forgetOwner()
{
    const std::lock_guard lock(ownerLock);
    owner = nullptr;
}

void OsdConnection::take(const model_OsdParam& record)
{
    if (endpoint->isAddressedBy(record.strIP)) {
        (void)post([record](OsdConnection& to) { to.send(osdframe::encode(record)); });
    }
}

std::shared_ptr<std::atomic<bool>> OsdConnection::post(const Function& function)
{
    auto over = std::make_shared<std::atomic<bool>>(false);
    auto call = std::make_unique<Call>(function, over);
    showWrites();
    const std::lock_guard lock(callLock);
    if (takesCalls) {
        QCoreApplication::postEvent(this, call.release());
    }
    return over;
}

void OsdConnection::call(const Function& function)
{
    if (QThread::currentThread() == this) {
        if (takesCalls) {
            function(*this);
        }
        return;
    }
    pollUntil([over = post(function)] { return over->load(); }, callLimit);
}

bool OsdConnection::isIdle() const
{
    if (QThread::currentThread() != this && !endpoint->deals()) {
        pollUntil([this] { return idle.load(); }, endLimit);
    }
    return idle;
}

bool OsdConnection::event(QEvent* event)
{
    showWrites();
    if (event->type() != QEvent::User) {
        return QThread::event(event);
    }
    static_cast<Call*>(event)->function(*this);
    return true;
}

void OsdConnection::open()
{
    closeSocket();
    if (!endpoint->deals()) {
        return;
    }
    const Address address = addressOf(*endpoint);
    if (!address) {
        lose();
        return;
    }
    descriptor = socket(address->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        endpoint->logShortage();
        lose();
        return;
    }
    bindToFixedPort(descriptor, *address);
    (void)setsockopt(descriptor, IPPROTO_TCP, TCP_SYNCNT, &mostRepetitions, sizeof mostRepetitions);
    if (::connect(descriptor, address->ai_addr, address->ai_addrlen) != 0 && errno != EINPROGRESS) {
        lose();
        return;
    }
    readable = std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Read);
    writable = std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Write);
    connect(readable.get(), &QSocketNotifier::activated, this, &OsdConnection::onReadyRead);
    connect(writable.get(), &QSocketNotifier::activated, this, &OsdConnection::onWritable);
    updateNotifiers();
}

void OsdConnection::connectSignals(std::shared_ptr<OsdRecords> from)
{
    disconnectSignals();
    records = std::move(from);
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
        readable->setEnabled(listening && bConnected && !heldBack);
        writable->setEnabled(listening && (!bConnected || pending.size() > 0));
    }
}

void OsdConnection::onWritable()
{
    int error = 0;
    socklen_t length = sizeof error;
    (void)getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &length);
    if (error != 0 || !flush()) {
        lose();
        return;
    }
    onConnected();
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
    endpoint->stop();
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
        return;
    }
    if (endpoint->received().isFull() && !heldBack) {
        heldBack = true;
        QTimer::singleShot(heldBackMs, this, [this] {
            heldBack = false;
            onReadyRead();
        });
    }
    updateNotifiers();
}

// False if the connection is over. It is held back by TCP instead of filling the memory if it sends
// faster than its acknowledgements can be taken.
bool OsdConnection::takeAvailable(bool evenIfFull)
{
    std::array<char, chunkSize> bytes; // NOLINT(cppcoreguidelines-pro-type-member-init): 64 KiB
    while (evenIfFull || !endpoint->received().isFull()) {
        const ssize_t size = recv(descriptor, bytes.data(), bytes.size(), 0);
        if (size <= 0) {
            return size < 0 && mayGoOn();
        }
        endpoint->received().append(bytes.data(), static_cast<int>(size));
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
bool OsdConnection::deliver(int limitMs, const std::function<bool()>& goOn)
{
    QElapsedTimer waited;
    waited.start();
    while (flush()) {
        if (pending.size() == 0 || waited.hasExpired(limitMs) || !goOn()) {
            return true;
        }
        const bool full = endpoint->received().isFull();
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
    if (deliver(writeWaitMs, [this] { return endpoint->deals(); })) {
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
        if (deliver(hangUpWaitMs, [] { return !processend::begun(); })) {
            (void)takeAvailable(false);
        }
        lingeringclose::begin(std::exchange(descriptor, -1));
    }
    closeDescriptor();
}

void OsdConnection::closeDescriptor()
{
    readable.reset();
    writable.reset();
    if (descriptor >= 0) {
        ::close(std::exchange(descriptor, -1));
    }
    pending.clear();
    bConnected = false;
    heldBack = false;
}
