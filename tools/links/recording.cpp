// SPDX-License-Identifier: MIT
#include "recording.h"

#include "recordtext.h"
#include "toolerror.h"

#include <QFile>

#include <algorithm>
#include <optional>

#include <pcap/pcap.h>

namespace
{

using Wire = CaptureRecord::Medium;
using What = CaptureRecord::What;
using devicecodec::Framing;

constexpr qint64 quietTime = 30000000; // ns; a command that is still open then is complete
constexpr qint64 millisecond = 1000000;

FieldSet fieldsOf(Wire medium)
{
    return medium == Wire::Vela  ? FieldSet::BinaryHead
           : medium == Wire::Osd ? FieldSet::OsdFrame
                                 : FieldSet::TextBody;
}

CommandReader readerOf(Wire medium)
{
    const Framing framing = medium == Wire::Vela  ? Framing::Binary
                            : medium == Wire::Osd ? Framing::Osd
                                                  : Framing::Text;
    return CommandReader(framing, medium == Wire::Udp ? Medium::Datagrams : Medium::Stream);
}

/// Finds the commands in what was sent, and puts what came behind them.
class Cutter
{
public:
    explicit Cutter(Recording& made, Wire of)
        : recording(made), medium(of), reader(readerOf(medium))
    {
    }

    void take(const CaptureRecord& record)
    {
        if (record.what == What::Sent) {
            sent(record);
        } else if (record.what == What::Received && begun() > 0 &&
                   record.device.address == device) {
            received(record);
        }
    }

    void finish()
    {
        if (auto open = reader.settle()) {
            add(std::move(*open));
        }
        recording.noise = reader.noise();
        recording.steps.resize(std::min(recording.steps.size(), complete));
    }

private:
    // Commands so far, that which may not be complete included.
    std::size_t begun() const { return complete + (reader.isOpen() ? 1 : 0); }

    void sent(const CaptureRecord& record)
    {
        device = record.device.address;
        // The pieces of one long write have one time.
        const qint64 gap = record.time - last;
        if (gap > (medium == Wire::Osd ? 0 : quietTime)) {
            if (auto open = reader.settle()) {
                add(std::move(*open));
            }
        }
        if (!reader.isOpen()) {
            opened = record.time;
        }
        last = record.time;
        for (DeviceCommand& command : reader.take(record.bytes)) {
            add(std::move(command));
            opened = record.time;
        }
    }

    void received(const CaptureRecord& record)
    {
        auto& step = stepOf(begun() - 1);
        const qint64 before = step.answer.empty() ? last : lastReceived;
        const auto pause = std::chrono::milliseconds((record.time - before) / millisecond);
        step.answer.push_back({record.bytes, std::max(pause, std::chrono::milliseconds(0))});
        lastReceived = record.time;
    }

    void add(DeviceCommand command)
    {
        first = complete == 0 ? opened : first;
        auto& step = stepOf(complete++);
        step.command = std::move(command);
        step.at = std::chrono::nanoseconds(opened - first);
    }

    Recording::Step& stepOf(std::size_t index)
    {
        recording.steps.resize(std::max(recording.steps.size(), index + 1));
        return recording.steps[index];
    }

    Recording& recording;
    const Wire medium;
    CommandReader reader;
    QHostAddress device; // who was sent to
    std::size_t complete = 0;
    qint64 first = 0;        // the times of the first command,
    qint64 opened = 0;       // of that which is open,
    qint64 last = 0;         // of the last bytes that were sent,
    qint64 lastReceived = 0; // and of those that came
};

std::vector<CaptureRecord> recordsIn(const QString& path)
{
    char wrong[PCAP_ERRBUF_SIZE] = {};
    const std::unique_ptr<pcap_t, decltype(&pcap_close)> file(
        pcap_open_offline_with_tstamp_precision(QFile::encodeName(path).constData(),
                                                PCAP_TSTAMP_PRECISION_NANO, wrong),
        pcap_close);
    if (!file) {
        throw BadInput(QString("%1: %2").arg(path, QString::fromLocal8Bit(wrong)));
    }
    std::vector<CaptureRecord> records;
    pcap_pkthdr* head = nullptr;
    const u_char* bytes = nullptr;
    int more = 1;
    while ((more = pcap_next_ex(file.get(), &head, &bytes)) == 1) {
        const QByteArray packet(reinterpret_cast<const char*>(bytes),
                                static_cast<int>(head->caplen));
        auto record = pcap_datalink(file.get()) == DLT_WIRESHARK_UPPER_PDU
                          ? CaptureRecord::decode(packet)
                          : std::nullopt;
        if (record) {
            constexpr qint64 second = 1000000000;
            record->time = head->ts.tv_sec * second + head->ts.tv_usec; // ns, as was asked for
            records.push_back(std::move(*record));
        }
    }
    if (more != PCAP_ERROR_BREAK) {
        throw BadInput(
            QString("%1: %2").arg(path, QString::fromLocal8Bit(pcap_geterr(file.get()))));
    }
    return records;
}

} // namespace

QByteArray Recording::Step::answerBytes() const
{
    QByteArray all;
    for (const Emission& piece : answer) {
        all += piece.bytes;
    }
    return all;
}

Recording Recording::of(const std::vector<CaptureRecord>& records)
{
    Recording recording;
    if (!records.empty()) {
        recording.link = records.front().link;
        recording.fields = fieldsOf(records.front().medium);
        Cutter cutter(recording, records.front().medium);
        for (const CaptureRecord& record : records) {
            cutter.take(record);
        }
        cutter.finish();
    }
    return recording;
}

Recording Recording::read(const QString& path, Wire medium, const QString& link)
{
    std::vector<CaptureRecord> records = recordsIn(path);
    const auto leaveOut = [&records](const auto& isOther) {
        records.erase(std::remove_if(records.begin(), records.end(), isOther), records.end());
    };
    leaveOut([medium](const CaptureRecord& record) { return record.medium != medium; });
    QStringList names;
    for (const CaptureRecord& record : records) {
        names << QString::fromUtf8(record.link);
    }
    names.removeDuplicates();
    if (names.isEmpty()) {
        throw BadInput(QString("%1: it has nothing of a link like %2: give a file that coremanage "
                               "capture has written")
                           .arg(path, link));
    }
    std::stable_sort(records.begin(), records.end(),
                     [](const auto& one, const auto& other) { return one.time < other.time; });
    if (names.size() > 1) {
        if (!names.contains(link)) {
            throw BadInput(QString("link of %1").arg(path), link, names.join(" or "));
        }
        leaveOut(
            [name = link.toUtf8()](const CaptureRecord& record) { return record.link != name; });
    }
    return of(records);
}

RecordedAnswers::RecordedAnswers(const Recording& recording) : fields(recording.fields)
{
    for (const Recording::Step& step : recording.steps) {
        const Command command = recordtext::command(step.command, fields);
        recorded[recordtext::frame(command, fields)].answers.push_back(step.answer);
    }
}

void RecordedAnswers::answer(const DeviceCommand& command, Answer& answer)
{
    answer.pieces.clear();
    const auto found =
        recorded.find(recordtext::frame(recordtext::command(command, fields), fields));
    if (found != recorded.end()) {
        Turns& turns = found->second;
        answer.pieces = turns.answers[turns.next];
        turns.next = (turns.next + 1) % turns.answers.size();
    }
}
