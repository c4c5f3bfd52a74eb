// SPDX-License-Identifier: MIT
#include "commands.h"

#include "hidnode.h"
#include "output.h"
#include "recordtext.h"
#include "toolerror.h"

#include <CLI/CLI.hpp>

namespace
{

class Devices
{
public:
    explicit Devices(CLI::App& application);

    CLI::App* parser;
    int run();

private:
    void show(const HidNode& node) const;

    bool json = false;
};

Devices::Devices(CLI::App& application)
    : parser(
          application.add_subcommand("devices", "List the USB HID devices and who may open them"))
{
    parser->add_flag("--json", json, "print one JSON object a line");
    parser->footer("Example:\n"
                   "  coremanage devices\n"
                   "\nExit codes: 0 listed, 1 there is none.");
}

void Devices::show(const HidNode& node) const
{
    const QString obstacle = node.obstacle();
    if (json) {
        output::line(recordtext::oneLine({{QStringLiteral("link"), node.address()},
                                          {QStringLiteral("node"), node.path},
                                          {QStringLiteral("name"), node.name},
                                          {QStringLiteral("may_open"), obstacle.isEmpty()},
                                          {QStringLiteral("obstacle"), obstacle},
                                          {QStringLiteral("rule"), node.rule()}}));
        return;
    }
    output::line(QStringLiteral("%1 %2 (%3) %4")
                     .arg(node.address(), node.path, node.name,
                          obstacle.isEmpty() ? QStringLiteral("may be opened") : obstacle));
    if (!obstacle.isEmpty()) {
        output::line(
            QStringLiteral("    put this line into /etc/udev/rules.d/70-core-manage.rules, "
                           "run sudo udevadm control --reload, plug it in again:\n    %1")
                .arg(node.rule()));
    }
}

int Devices::run()
{
    const auto nodes = HidNode::all();
    for (const HidNode& node : nodes) {
        show(node);
    }
    if (nodes.empty()) {
        throw ToolError(exitcode::failed,
                        QStringLiteral("there is no USB HID device: is it plugged in, and is the "
                                       "kernel's module usbhid loaded?"));
    }
    return exitcode::success;
}

} // namespace

commands::Subcommand commands::addDevices(CLI::App& application)
{
    const auto devices = std::make_shared<Devices>(application);
    return {devices->parser, [devices] { return devices->run(); }};
}
