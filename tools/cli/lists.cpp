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
    return obstacle.isEmpty() ? "may be opened" : obstacle;
}

int listPorts(bool json)
{
    const QList<QSerialPortInfo> ports = QSerialPortInfo::availablePorts();
    for (const QSerialPortInfo& port : ports) {
        const QString obstacle = fileaccess::obstacle(port.systemLocation());
        if (json) {
            output::json({{"port", port.systemLocation()},
                          {"manufacturer", port.manufacturer()},
                          {"description", port.description()},
                          {"serial_number", port.serialNumber()},
                          {"may_open", obstacle.isEmpty()},
                          {"obstacle", obstacle}});
            continue;
        }
        QStringList about{port.manufacturer(), port.description(), port.serialNumber()};
        about.removeAll(QString());
        output::line(port.systemLocation() + ' ' + accessText(obstacle) +
                     (about.isEmpty() ? QString() : QString(" (%1)").arg(about.join(", "))));
    }
    if (ports.isEmpty()) {
        throw ToolError(exitcode::failed, "there is no serial port: is the device "
                                          "plugged in, and its driver loaded?");
    }
    return exitcode::success;
}

int listDevices(bool json)
{
    const auto nodes = HidNode::all();
    for (const HidNode& node : nodes) {
        const QString obstacle = fileaccess::obstacle(node.path);
        if (json) {
            output::json({{"link", node.address()},
                          {"node", node.path},
                          {"name", node.name},
                          {"may_open", obstacle.isEmpty()},
                          {"obstacle", obstacle},
                          {"rule", node.rule()}});
            continue;
        }
        output::line(QString("%1 %2 (%3) %4")
                         .arg(node.address(), node.path, node.name, accessText(obstacle)));
        if (!obstacle.isEmpty()) {
            output::line(QString("    %1\n    %2").arg(fileaccess::ruleAdvice(), node.rule()));
        }
    }
    if (nodes.empty()) {
        throw ToolError(exitcode::failed,
                        "there is no USB HID device: is it plugged in, and is the "
                        "kernel's module usbhid loaded?");
    }
    return exitcode::success;
}

void addList(CLI::App& application, int& code, const std::string& name, const char* description,
             int (*list)(bool json))
{
    auto* parser = application.add_subcommand(name, description);
    const auto json = std::make_shared<bool>(false);
    parser->add_flag("--json", *json, "print one JSON object a line");
    parser->footer("Example:\n  coremanage " + name + "\n\nExit codes: 0 listed, 1 there is none.");
    parser->callback([json, list, &code] { code = list(*json); });
}

} // namespace

void commands::addPorts(CLI::App& application, int& code)
{
    addList(application, code, "ports", "List the serial ports and who may open them", listPorts);
}

void commands::addDevices(CLI::App& application, int& code)
{
    addList(application, code, "devices", "List the USB HID devices and who may open them",
            listDevices);
}
