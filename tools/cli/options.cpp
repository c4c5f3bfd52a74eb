// SPDX-License-Identifier: MIT
#include "options.h"

#include "linknotes.h"
#include "recordtext.h"
#include "toolerror.h"
#include "toolfiles.h"
#include "utility_manage.h"

#include <algorithm>
#include <limits>

namespace
{

constexpr int blockLimit = 65535; // DAT4 * 256 + DAT3 announces no more
constexpr const char* deviceGroup = "Command";
constexpr const char* osdGroup = "Command of an on-screen display";

QString optionOf(const CommandField& field)
{
    return "--" + QString::fromLatin1(field.name).toLower();
}

} // namespace

void LinkOptions::addTo(CLI::App& app)
{
    app.add_option("link", addresses, "link address, see below; osd:// also several")
        ->type_name("LINK")
        ->required();
    options::addNumber(app, "--device-type", deviceType, 0, std::numeric_limits<qint32>::max(),
                       "host-wide device type, for instance 0x353101 (0)", "TYPE");
    app.add_option("--log", log, "log file of the link (~/.local/state/coremanage/coremanage.log)")
        ->type_name("FILE");
    capture.addTo(app);
    app.add_flag("-v,--verbose", verbose, "show the library's debug lines on standard error");
}

void LinkOptions::useDeviceType() const
{
    if (deviceType >= 0) {
        Utility_Manage::setDeviceType(static_cast<model_GlobalEnum::DeviceType>(deviceType));
    }
}

std::unique_ptr<LinkTarget> LinkOptions::target() const
{
    useDeviceType();
    return linkregistry::target(links());
}

std::vector<std::pair<QString, std::unique_ptr<LinkTarget>>> LinkOptions::targets() const
{
    useDeviceType();
    std::vector<std::pair<QString, std::unique_ptr<LinkTarget>>> all;
    QStringList endpoints;
    for (const QString& text : links()) {
        if (LinkAddress::parse(text).scheme == "osd") {
            endpoints << text;
        } else {
            all.emplace_back(text, linkregistry::target(text));
        }
    }
    if (!endpoints.isEmpty()) {
        all.emplace_back(endpoints.front(), linkregistry::target(endpoints));
    }
    return all;
}

QStringList LinkOptions::links() const
{
    QStringList texts;
    for (const std::string& address : addresses) {
        texts << QString::fromStdString(address);
    }
    return texts;
}

void LinkOptions::startLog()
{
    capture.begin();
    capture.watch(link());
    toolfiles::startLog(QString::fromStdString(log));
    linknotes::install(verbose);
}

void Duration::addTo(CLI::App& app, const std::string& what)
{
    constexpr qint64 countLimit = 1000000000;
    constexpr qint64 secondsLimit = qint64{366} * 24 * 3600;
    options::addNumber(app, "--count", count, 1, countLimit, "end after so many " + what);
    options::addNumber(app, "--for", seconds, 1, secondsLimit, "end after so many seconds", "S");
}

std::chrono::milliseconds Duration::limit() const
{
    return seconds > 0 ? std::chrono::seconds(seconds) : forEver;
}

void LineTime::addTo(CLI::App& app)
{
    const auto read = [this](const std::string& text) {
        isAbsolute = text == "absolute";
        isDifference = text == "difference";
        if (!isAbsolute && !isDifference && text != "day") {
            throw BadInput("--time", QString::fromStdString(text), "day, absolute or difference");
        }
    };
    app.add_option_function<std::string>(
           "--time", read,
           "lines begin with the time of the day (day), with date and zone (absolute), or with the "
           "seconds since the line before (difference)")
        ->type_name("STYLE");
}

QDateTime LineTime::local(Time time)
{
    using std::chrono::milliseconds;
    return QDateTime::fromMSecsSinceEpoch(
        std::chrono::duration_cast<milliseconds>(time.time_since_epoch()).count());
}

QString LineTime::text(Time time)
{
    if (!isDifference) {
        return isAbsolute ? recordtext::zonedTime(local(time)) : recordtext::timeOfDay(local(time));
    }
    const std::chrono::duration<double> passed = time - before.value_or(time);
    before = time;
    return QString("+%1").arg(passed.count(), 0, 'f', 6);
}

void CommandFields::addTo(CLI::App& app)
{
    for (const CommandField& field : CommandField::all()) {
        if (field.help == nullptr) {
            continue;
        }
        const auto read = [this, &field](const std::string& text) {
            setNumber(field, QString::fromStdString(text));
        };
        app.add_option_function<std::string>(optionOf(field).toStdString(), read, field.help)
            ->type_name("")
            ->group(field.isIn(FieldSet::OsdFrame) ? osdGroup : deviceGroup);
    }
    const auto addPayload = [this, &app](const char* option, const char* help, const char* group) {
        const auto keep = [this, option](const std::string& text) { payload[option] = text; };
        return app.add_option_function<std::string>(option, keep, help)
            ->type_name("")
            ->group(group);
    };
    addPayload("--block", "block: @FILE, or hexadecimal digits", deviceGroup);
    auto* data = addPayload("--data", "data: @FILE, or hexadecimal digits", osdGroup);
    addPayload("--text", "data: a text, sent in UTF-8", osdGroup)->excludes(data);
}

void CommandFields::setNumber(const CommandField& field, const QString& text)
{
    const qint64 limit = (1 << (8 * field.bytes())) - 1;
    numbers[&field] = static_cast<int>(typed::number(optionOf(field), text, 0, limit));
}

void CommandFields::set(const QString& name, const QString& text)
{
    QStringList names{"block", "data", "text"};
    if (names.contains(name)) {
        payload["--" + name.toStdString()] = text.toStdString();
        return;
    }
    for (const CommandField& field : CommandField::all()) {
        if (field.help != nullptr && optionOf(field) == "--" + name) {
            setNumber(field, text);
            return;
        }
        names << (field.help != nullptr ? optionOf(field).mid(2) : QString());
    }
    names.removeAll(QString());
    throw BadInput("field", name, names.join(", "));
}

QByteArray CommandFields::payloadOf(const char* option, int limit) const
{
    return given(option) ? typed::bytes(QString::fromLatin1(option),
                                        QString::fromStdString(payload.at(option)), limit)
                         : QByteArray();
}

Command CommandFields::read(FieldSet fields) const
{
    const bool isOsd = fields == FieldSet::OsdFrame;
    const auto refuse = [&](const QString& option) {
        throw BadInput(QString("%1: %2 frames do not carry it: leave it out")
                           .arg(option, isOsd                            ? "on-screen-display"
                                        : fields == FieldSet::BinaryHead ? "binary"
                                                                         : "text"));
    };
    for (const auto& [field, value] : numbers) {
        if (!field->isIn(fields)) {
            refuse(optionOf(*field));
        }
    }
    for (const auto& [option, text] : payload) {
        if ((option == "--block") == isOsd) {
            refuse(QString::fromStdString(option));
        }
    }
    QByteArray bytes;
    if (isOsd) {
        if (numbers.empty() && payload.empty()) {
            throw BadInput("there is no command: give --ch2 to --ch10 (but no "
                           "ch6), --data or --text");
        }
        bytes = given("--text") ? QByteArray::fromStdString(payload.at("--text"))
                                : payloadOf("--data", typed::fileLimit);
    } else {
        const bool hasCode = std::any_of(numbers.begin(), numbers.end(), [&](const auto& number) {
            return optionOf(*number.first) == "--cmd";
        });
        if (!hasCode) {
            throw BadInput("--cmd is missing: give the command code, like --cmd 0x8b");
        }
        bytes = payloadOf("--block", blockLimit);
    }
    Command command = Command::of(bytes, fields);
    for (const auto& [field, value] : numbers) {
        field->set(command, value);
    }
    return command;
}
