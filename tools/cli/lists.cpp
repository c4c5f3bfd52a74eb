// SPDX-License-Identifier: MIT
// The subcommands that list what there is to be opened: ports and devices.
#include "commands.h"

#include "fileaccess.h"
#include "hidnode.h"
#include "linkregistry.h"
#include "options.h"
#include "output.h"
#include "toolerror.h"

#include <QSerialPortInfo>

#include <memory>

namespace
{

QString accessText(const QString& obstacle)
{
    return obstacle.isEmpty() ? QStringLiteral("may be opened") : obstacle;
}

int listPorts(bool json)
{
    const QList<QSerialPortInfo> ports = QSerialPortInfo::availablePorts();
    for (const QSerialPortInfo& port : ports) {
        const QString obstacle = serialtarget::obstacle(port.systemLocation());
        if (json) {
            output::json({{QStringLiteral("port"), port.systemLocation()},
                          {QStringLiteral("manufacturer"), port.manufacturer()},
                          {QStringLiteral("description"), port.description()},
                          {QStringLiteral("serial_number"), port.serialNumber()},
                          {QStringLiteral("may_open"), obstacle.isEmpty()},
                          {QStringLiteral("obstacle"), obstacle}});
            continue;
        }
        QStringList about{port.manufacturer(), port.description(), port.serialNumber()};
        about.removeAll(QString());
        output::line(port.systemLocation() + QLatin1Char(' ') + accessText(obstacle) +
                     (about.isEmpty()
                          ? QString()
                          : QStringLiteral(" (%1)").arg(about.join(QStringLiteral(", ")))));
    }
    if (ports.isEmpty()) {
        throw ToolError(exitcode::failed, QStringLiteral("there is no serial port: is the device "
                                                         "plugged in, and its driver loaded?"));
    }
    return exitcode::success;
}

int listDevices(bool json)
{
    const auto nodes = HidNode::all();
    for (const HidNode& node : nodes) {
        const QString obstacle = fileaccess::obstacle(node.path);
        if (json) {
            output::json({{QStringLiteral("link"), node.address()},
                          {QStringLiteral("node"), node.path},
                          {QStringLiteral("name"), node.name},
                          {QStringLiteral("may_open"), obstacle.isEmpty()},
                          {QStringLiteral("obstacle"), obstacle},
                          {QStringLiteral("rule"), node.rule()}});
            continue;
        }
        output::line(QStringLiteral("%1 %2 (%3) %4")
                         .arg(node.address(), node.path, node.name, accessText(obstacle)));
        if (!obstacle.isEmpty()) {
            output::line(
                QStringLiteral("    put this line into /etc/udev/rules.d/70-core-manage.rules, "
                               "run sudo udevadm control --reload, plug it in again:\n    %1")
                    .arg(node.rule()));
        }
    }
    if (nodes.empty()) {
        throw ToolError(exitcode::failed,
                        QStringLiteral("there is no USB HID device: is it plugged in, and is the "
                                       "kernel's module usbhid loaded?"));
    }
    return exitcode::success;
}

commands::Subcommand addList(CLI::App& application, const std::string& name,
                             const char* description, int (*list)(bool json))
{
    auto* parser = application.add_subcommand(name, description);
    const auto json = std::make_shared<bool>(false);
    parser->add_flag("--json", *json, "print one JSON object a line");
    parser->footer("Example:\n  coremanage " + name + "\n\nExit codes: 0 listed, 1 there is none.");
    return {parser, [json, list] { return list(*json); }};
}

} // namespace

commands::Subcommand commands::addPorts(CLI::App& application)
{
    return addList(application, "ports", "List the serial ports and who may open them", listPorts);
}

commands::Subcommand commands::addDevices(CLI::App& application)
{
    return addList(application, "devices", "List the USB HID devices and who may open them",
                   listDevices);
}
