// SPDX-License-Identifier: MIT
// Any text as a link's address: it is refused with words, or it is what it says to be.
#include "linkaddress.h"
#include "require.h"
#include "toolerror.h"

#include <optional>

namespace
{

// The number of an address's part, as a person reads it.
bool isByte(const QString& text)
{
    if (text.size() > 1 && text.startsWith('0')) {
        return false;
    }
    for (const QChar c : text) {
        if (c < QLatin1Char('0') || c > QLatin1Char('9')) {
            return false;
        }
    }
    return !text.isEmpty() && text.size() <= 3 && text.toInt() <= 255;
}

bool isIpv4(const QString& text)
{
    const QStringList parts = text.split('.');
    bool all = parts.size() == 4;
    for (const QString& part : parts) {
        all = all && isByte(part);
    }
    return all;
}

// What an operation returns; nothing if it refuses, which it must do with words.
template <class Operation>
auto valueOf(Operation&& operation) -> std::optional<decltype(operation())>
{
    try {
        return operation();
    } catch (const BadInput& wrong) {
        require(*wrong.what() != '\0', "a refusal has words");
        return std::nullopt;
    }
}

// The address cut by hand; nothing where it is to be refused.
std::optional<LinkAddress> plainlyCut(const QString& text)
{
    if (text.startsWith("/dev/hidraw")) {
        return std::nullopt;
    }
    const bool isPath = text.startsWith("/dev/") && !text.contains("://");
    const QString whole = isPath ? "serial://" + text : text;
    const auto colon = whole.indexOf("://");
    if (colon < 1) {
        return std::nullopt;
    }
    LinkAddress address;
    address.scheme = whole.left(colon).toLower();
    const auto mark = whole.indexOf('?', colon + 3);
    address.place = whole.mid(colon + 3, mark < 0 ? -1 : mark - colon - 3);
    const QStringList items = mark < 0 ? QStringList() : whole.mid(mark + 1).split('&');
    for (const QString& item : items) {
        const auto equals = item.indexOf('=');
        const QString key = item.left(equals);
        if (item.isEmpty()) {
            continue;
        }
        if (equals < 0 || address.options.contains(key)) {
            return std::nullopt;
        }
        address.options[key] = item.mid(equals + 1);
    }
    return address;
}

void look(const LinkAddress& address)
{
    const auto found = valueOf([&] { return address.ipPort(1000); });
    const QString ip = address.place.section(':', 0, 0);
    require(!found || isIpv4(ip), "a host is an IPv4 address");
    require(found || !isIpv4(ip) || ip != address.place, "an IPv4 address is a host");
    require(!found || found->host.toString() == ip, "of the same numbers");
    require(!found || ip != address.place || found->port == 1000, "with the usual port");
    for (const QString& name : address.options.keys()) {
        const QByteArray option = name.toLatin1();
        if (QLatin1String(option) != name) {
            continue;
        }
        const auto number = valueOf([&] { return address.number(option.constData(), 5, 70000); });
        require(!number || (*number >= 5 && *number <= 70000), "a number is in its range");
        const QStringList choices{"none", "even", "odd"};
        const auto choice = valueOf([&] { return address.choice(option.constData(), choices, 7); });
        require(!choice || choices.value(*choice) == address.options.value(name),
                "a choice is one of them");
    }
    const auto allowed = valueOf([&] {
        address.allowOptions({"baud", "parity"});
        return true;
    });
    require(allowed.has_value() == (address.options.size() == (address.has("baud") ? 1 : 0) +
                                                                  (address.has("parity") ? 1 : 0)),
            "only these options are allowed");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// An argument ends at its first zero byte.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArray input(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const QString text = QString::fromUtf8(input.constData());
    const auto address = valueOf([&] { return LinkAddress::parse(text); });
    const auto expected = plainlyCut(text);
    require(address.has_value() == expected.has_value(), "both take it, or none");
    if (address) {
        require(address->text.endsWith(text) && address->scheme == expected->scheme &&
                    address->place == expected->place && address->options == expected->options,
                "the same parts");
        look(*address);
    }
    return 0;
}
