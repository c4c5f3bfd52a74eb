// SPDX-License-Identifier: MIT
#include "linkoptions.h"

#include "commandfields.h"
#include "linknotes.h"
#include "toollog.h"
#include "utility_manage.h"

#include <CLI/CLI.hpp>

#include <limits>

void LinkOptions::addTo(CLI::App& app)
{
    app.add_option("link", addresses, "link address, see below; osd:// also several")
        ->type_name("LINK")
        ->required();
    app.add_option("--device-type", deviceType, "host-wide device type, for instance 0x353101 (0)")
        ->type_name("TYPE");
    app.add_option("--log", log, "log file of the link (~/.local/state/coremanage/coremanage.log)")
        ->type_name("FILE");
    app.add_flag("-v,--verbose", verbose, "show the library's debug lines on standard error");
}

std::unique_ptr<LinkTarget> LinkOptions::target() const
{
    if (!deviceType.empty()) {
        Utility_Manage::setDeviceType(static_cast<model_GlobalEnum::DeviceType>(typed::number(
            QStringLiteral("--device-type"), deviceType, 0, std::numeric_limits<qint32>::max())));
    }
    return linkregistry::target(links());
}

QStringList LinkOptions::links() const
{
    QStringList texts;
    for (const std::string& address : addresses) {
        texts << QString::fromStdString(address);
    }
    return texts;
}

void LinkOptions::startLog() const
{
    toollog::choose(QString::fromStdString(log));
    linknotes::install(verbose);
}
