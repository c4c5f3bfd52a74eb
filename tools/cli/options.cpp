// SPDX-License-Identifier: MIT
#include "options.h"

#include "linknotes.h"
#include "toolfiles.h"
#include "utility_manage.h"

#include <limits>

void LinkOptions::addTo(CLI::App& app)
{
    app.add_option("link", addresses, "link address, see below; osd:// also several")
        ->type_name("LINK")
        ->required();
    options::addNumber(app, "--device-type", deviceType, 0, std::numeric_limits<qint32>::max(),
                       "host-wide device type, for instance 0x353101 (0)", "TYPE");
    app.add_option("--log", log, "log file of the link (~/.local/state/coremanage/coremanage.log)")
        ->type_name("FILE");
    app.add_flag("-v,--verbose", verbose, "show the library's debug lines on standard error");
}

std::unique_ptr<LinkTarget> LinkOptions::target() const
{
    if (deviceType >= 0) {
        Utility_Manage::setDeviceType(static_cast<model_GlobalEnum::DeviceType>(deviceType));
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
