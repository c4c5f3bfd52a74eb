// SPDX-License-Identifier: MIT
#include "faultmatrix.h"

#include "replybytes.h"
#include "simulateddevice.h"

#include <algorithm>

using faultmatrix::Link;
using replystreamcomparison::Arrival;

namespace
{

using std::chrono::milliseconds;

constexpr int reportData = 64;      // bytes of an input report
constexpr int connectionBytes = 12; // of commands, before a connection is closed
constexpr milliseconds silence{30};

Faulty faultyOn(Link link)
{
    switch (link) {
    case Link::Udp:
        return Faulty::Datagrams;
    case Link::Osd:
        return Faulty::Endpoint;
    default:
        return Faulty::Stream;
    }
}

QByteArray command(Link link, const faultmatrix::Kind& kind)
{
    const auto low = static_cast<char>(kind.length & 0xff);
    const auto high = static_cast<char>(kind.length >> 8);
    if (link == Link::Osd) {
        return QByteArray(1, static_cast<char>(kind.command)) + "1234567";
    }
    if (link != Link::Vela) {
        QByteArray bytes =
            replybytes::text(kind.command, kind.subCode, kind.length & 0xff, kind.length >> 8);
        bytes[1] = 'T';
        return bytes;
    }
    QByteArray bytes = QByteArray::fromHex("123401334455667700"
                                           "00");
    for (const int byte : {kind.command, kind.subCode, 0x0a}) {
        bytes.append(static_cast<char>(byte));
    }
    bytes.append(low).append(high);
    return bytes.append(replybytes::sumOf(bytes));
}

SimulatedDevice::Settings settingsOf(Link link, quint64 seed)
{
    using devicecodec::Framing;
    SimulatedDevice::Settings settings;
    settings.framing = link == Link::Osd    ? Framing::Osd
                       : link == Link::Vela ? Framing::Binary
                                            : Framing::Text;
    settings.medium = link == Link::Udp ? Medium::Datagrams : Medium::Stream;
    settings.seed = seed;
    settings.dataLength = 0;
    return settings;
}

// An exchange's writes, each when it is made. Those of a delayed one do not hold up the next.
void put(std::vector<Arrival>& arrivals, const Exchange& exchange, milliseconds at)
{
    for (int time = 0; time < exchange.times; ++time) {
        for (const Emission& emission : exchange.answer) {
            at += emission.after;
            arrivals.push_back({at, emission.bytes});
        }
    }
}

// What is written at one time goes in one series of reports, a reply at the start of one.
std::vector<Arrival> inReports(const std::vector<Arrival>& arrivals)
{
    std::vector<Arrival> reports;
    for (const Arrival& arrival : arrivals) {
        const bool joins =
            !reports.empty() && reports.back().at == arrival.at && !arrival.bytes.startsWith("<F");
        if (joins) {
            reports.back().bytes += arrival.bytes;
        } else {
            reports.push_back(arrival);
        }
    }
    for (Arrival& report : reports) {
        const auto size = report.bytes.size() + reportData - 1;
        report.bytes = report.bytes.leftJustified(size - size % reportData, '\0');
    }
    return reports;
}

// What an endpoint does to its connections; the device itself knows nothing of them.
bool isConnected(Fault fault, int commandBytes)
{
    return fault != Fault::Refuse && fault != Fault::NeverRead &&
           (fault != Fault::CloseAfter || commandBytes <= connectionBytes);
}

bool endsConnection(Fault fault)
{
    return fault == Fault::HangUp || fault == Fault::Reset;
}

} // namespace

// Each row of the library's table, lengths 0, 1 and more than a look at the buffer among them.
const std::vector<faultmatrix::Kind>& faultmatrix::kinds()
{
    static const std::vector<Kind> all{
        {"standard", 0x10, 0x20, 0, false},
        {"standard-asking-for-a-block", 0x77, 0x22, 9, false},
        {"79-0c", 0x79, 0x0C, 0, false},
        {"79-09", 0x79, 0x09, 24, false},
        {"79-other", 0x79, 0x0D, 1100, true},
        {"f1-40", 0xF1, 0x40, 261, true},
        {"f1-40-without-a-block", 0xF1, 0x40, 0, false},
        {"f1-other", 0xF1, 0x02, 1, true},
        {"8e-27", 0x8E, 0x27, 16, true},
        {"8b-05", 0x8B, 0x05, 3, true},
        {"8b-09", 0x8B, 0x09, 0, true},
        {"77-23", 0x77, 0x23, 0, true},
        {"69-09", 0x69, 0x09, 0, true},
    };
    return all;
}

std::vector<faultmatrix::Square> faultmatrix::squares()
{
    std::vector<Square> all;
    for (int i = 0; i < linkCount; ++i) {
        const auto link = static_cast<Link>(i);
        all.push_back({link, std::nullopt});
        for (int number = 0; number < faultCount; ++number) {
            Faults faults;
            faults.set(static_cast<Fault>(number), {1.0, 0, 0});
            if (faults.unfit(faultyOn(link)).isEmpty()) {
                all.push_back({link, static_cast<Fault>(number)});
            }
        }
    }
    return all;
}

std::string faultmatrix::name(const Square& square)
{
    static const char* const links[] = {"Udp", "Serial", "Vela", "Usb", "Osd"};
    const QString fault = square.fault ? Faults::name(*square.fault) : QStringLiteral("none");
    return links[static_cast<int>(square.link)] +
           ('_' + QString(fault).replace('-', '_')).toStdString();
}

void faultmatrix::PrintTo(const Square& square, std::ostream* out)
{
    *out << name(square);
}

std::vector<Arrival> faultmatrix::arrivals(const Square& square, const Kind& kind, int amount,
                                           quint64 seed, milliseconds apart, bool* struck)
{
    SimulatedDevice device(settingsOf(square.link, seed));
    if (square.fault) {
        device.faults().set(*square.fault, {0, 1, amount});
    }
    std::vector<Arrival> arrivals;
    milliseconds at{0};
    int commandBytes = 0;
    const auto answer = [&](const std::vector<Exchange>& exchanges) {
        for (const Exchange& exchange : exchanges) {
            put(arrivals, exchange, at);
            *struck = *struck || !exchange.faults.empty();
            if (!exchange.faults.empty() && endsConnection(exchange.faults.back())) {
                return false;
            }
        }
        return true;
    };
    for (const Kind& asked : {kind, kind, kinds().front()}) {
        const QByteArray bytes = command(square.link, asked);
        commandBytes += static_cast<int>(bytes.size());
        if (square.fault && !isConnected(*square.fault, commandBytes)) {
            *struck = true;
            break;
        }
        if (!answer(device.receive(bytes))) {
            break;
        }
        if (apart > silence) {
            at += silence;
            if (!answer(device.settle())) {
                break;
            }
        }
        at += apart;
    }
    answer(device.settle());
    std::stable_sort(arrivals.begin(), arrivals.end(),
                     [](const Arrival& a, const Arrival& b) { return a.at < b.at; });
    return square.link == Link::Usb ? inReports(arrivals) : arrivals;
}

std::vector<int> faultmatrix::amounts(std::optional<Fault> fault)
{
    switch (fault.value_or(Fault::Drop)) {
    case Fault::Flood:
        return {40};
    case Fault::Truncate:
        return {1, 2, 17, 18};
    case Fault::Oversize:
    case Fault::ShortBlock:
    case Fault::LongBlock:
        return {1, 19, 200};
    case Fault::Garbage:
        return {32, 1024, 3000};
    case Fault::LateBlock: // a wait for a block lasts 600 ms
        return {1, 300, 590, 596, 600, 604, 610, 700};
    case Fault::Split:
        return {1, 5};
    default:
        return {0};
    }
}
