// SPDX-License-Identifier: MIT
#include "commands.h"

#include "output.h"
#include "recordtext.h"
#include "serialtarget.h"
#include "toolerror.h"

#include <CLI/CLI.hpp>

#include <QSerialPortInfo>

namespace
{

class Ports
{
public:
    explicit Ports(CLI::App& application);

    CLI::App* parser;
    int run();

private:
    static void show(const QSerialPortInfo& port, const QString& obstacle);
    static void showJson(const QSerialPortInfo& port, const QString& obstacle);

    bool json = false;
};

Ports::Ports(CLI::App& application)
    : parser(application.add_subcommand("ports", "List the serial ports and who may open them"))
{
    parser->add_flag("--json", json, "print one JSON object a line");
    parser->footer("Example:\n"
                   "  coremanage ports\n"
                   "\nExit codes: 0 listed, 1 there is none.");
}

void Ports::show(const QSerialPortInfo& port, const QString& obstacle)
{
    QStringList about;
    for (const QString& text : {port.manufacturer(), port.description(), port.serialNumber()}) {
        if (!text.isEmpty()) {
            about << text;
        }
    }
    output::line(QStringLiteral("%1 %2 %3")
                     .arg(port.systemLocation(),
                          obstacle.isEmpty() ? QStringLiteral("may be opened") : obstacle,
                          about.isEmpty()
                              ? QString()
                              : QStringLiteral("(%1)").arg(about.join(QStringLiteral(", "))))
                     .trimmed());
}

void Ports::showJson(const QSerialPortInfo& port, const QString& obstacle)
{
    output::line(recordtext::oneLine({{QStringLiteral("port"), port.systemLocation()},
                                      {QStringLiteral("manufacturer"), port.manufacturer()},
                                      {QStringLiteral("description"), port.description()},
                                      {QStringLiteral("serial_number"), port.serialNumber()},
                                      {QStringLiteral("may_open"), obstacle.isEmpty()},
                                      {QStringLiteral("obstacle"), obstacle}}));
}

int Ports::run()
{
    const QList<QSerialPortInfo> ports = QSerialPortInfo::availablePorts();
    for (const QSerialPortInfo& port : ports) {
        const QString obstacle = serialtarget::obstacle(port.systemLocation());
        if (json) {
            showJson(port, obstacle);
        } else {
            show(port, obstacle);
        }
    }
    if (ports.isEmpty()) {
        throw ToolError(exitcode::failed, QStringLiteral("there is no serial port: is the device "
                                                         "plugged in, and its driver loaded?"));
    }
    return exitcode::success;
}

} // namespace

commands::Subcommand commands::addPorts(CLI::App& application)
{
    const auto ports = std::make_shared<Ports>(application);
    return {ports->parser, [ports] { return ports->run(); }};
}
