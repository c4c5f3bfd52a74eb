// SPDX-License-Identifier: MIT
#include "extcap.h"

#include "commands.h"
#include "hidnode.h"
#include "linkregistry.h"
#include "output.h"
#include "toolerror.h"

#include <CLI/CLI.hpp>

#include <QSerialPortInfo>

#include <algorithm>

namespace
{

constexpr const char* prefix = "coremanage-"; // of an interface; its link's scheme follows

QString interfaceOf(const LinkKind& kind)
{
    return QLatin1String(prefix) + QLatin1String(kind.scheme);
}

void listInterfaces()
{
    output::line(QString("extcap {version=%1}{display=coremanage}").arg(COREMANAGE_VERSION));
    for (const LinkKind& kind : linkregistry::kinds()) {
        output::line(
            QString("interface {value=%1}{display=coremanage %2: %3}")
                .arg(interfaceOf(kind), QLatin1String(kind.scheme), QLatin1String(kind.describes)));
    }
}

// The first link of this kind that can be found without sending anything.
QString linkOf(const LinkKind& kind)
{
    const QString scheme = QLatin1String(kind.scheme);
    const auto ports = QSerialPortInfo::availablePorts();
    const auto nodes = HidNode::all();
    if (scheme == "usb" && !nodes.empty()) {
        return nodes.front().address();
    }
    return (scheme == "serial" || scheme == "vela") && !ports.isEmpty()
               ? scheme + "://" + ports.front().systemLocation()
               : QString();
}

void listOptions(const LinkKind& kind)
{
    const QString found = linkOf(kind);
    output::line(QString("arg {number=0}{call=--link}{display=Link}{type=string}{required=true}"
                         "{placeholder=%1}{tooltip=The address of the link}%2")
                     .arg(QLatin1String(kind.form),
                          found.isEmpty() ? QString() : QString("{default=%1}").arg(found)));
    if (kind.fields != FieldSet::OsdFrame) {
        output::line("arg {number=1}{call=--cmd}{display=Command}{type=string}{placeholder=0x10}"
                     "{tooltip=Is sent once when the link is open; none if empty}");
    }
}

int capture(const std::string& link, const std::string& pipe,
            const std::vector<std::string>& others)
{
    if (link.empty() || pipe.empty()) {
        throw BadInput("the link is missing: give its address in the interface's options");
    }
    std::vector<std::string> words{"coremanage", "capture", link, "--quiet", "--write", pipe};
    words.insert(words.end(), others.begin(), others.end());
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    return commandline::run(static_cast<int>(words.size()), arguments.data());
}

} // namespace

bool extcap::isAsked(int argc, char** argv)
{
    return std::any_of(argv, argv + argc, [](const char* argument) {
        return QByteArray(argument).startsWith("--extcap-");
    });
}

int extcap::run(int argc, char** argv)
{
    CLI::App call;
    call.allow_extras();
    bool wantsInterfaces = false;
    bool wantsTypes = false;
    bool wantsOptions = false;
    bool captures = false;
    std::string interface, pipe, link, ignored;
    call.add_flag("--extcap-interfaces", wantsInterfaces);
    call.add_flag("--extcap-dlts", wantsTypes);
    call.add_flag("--extcap-config", wantsOptions);
    call.add_flag("--capture", captures);
    call.add_option("--extcap-interface", interface);
    call.add_option("--fifo", pipe);
    call.add_option("--link", link);
    for (const char* other :
         {"--extcap-version", "--extcap-capture-filter", "--extcap-reload-option",
          "--extcap-control-in", "--extcap-control-out"}) {
        call.add_option(other, ignored);
    }
    call.parse(argc, argv);
    if (wantsInterfaces) {
        listInterfaces();
        return exitcode::success;
    }
    const auto& kinds = linkregistry::kinds();
    const auto kind = std::find_if(kinds.begin(), kinds.end(), [&](const LinkKind& one) {
        return interfaceOf(one).toStdString() == interface;
    });
    if (kind == kinds.end()) {
        throw BadInput("--extcap-interface", QString::fromStdString(interface),
                       "one that --extcap-interfaces lists");
    }
    if (wantsTypes) {
        output::line("dlt {number=252}{name=WIRESHARK_UPPER_PDU}{display=coremanage}");
    } else if (wantsOptions) {
        listOptions(*kind);
    } else if (captures) {
        return capture(link, pipe, call.remaining());
    }
    return exitcode::success;
}
