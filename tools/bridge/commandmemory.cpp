// SPDX-License-Identifier: MIT
#include "commandmemory.h"

#include <QCryptographicHash>

namespace
{

constexpr std::size_t most = 65'536;

} // namespace

bool CommandMemory::hasCome(const QByteArray& topic, const QByteArray& responseTopic,
                            const QByteArray& correlation, const QByteArray& payload)
{
    const qint64 now = clock.elapsed();
    while (!entries.empty() &&
           (entries.size() >= most || now - entries.front().time >= limit.count())) {
        keys.remove(entries.front().key);
        entries.pop_front();
    }
    if (limit.count() == 0) {
        return false;
    }
    QCryptographicHash hash(QCryptographicHash::Sha1);
    for (const QByteArray& part : {topic, responseTopic, correlation, payload}) {
        hash.addData(QByteArray::number(part.size()) + ' ' + part);
    }
    const QByteArray key = hash.result();
    if (keys.contains(key)) {
        return true;
    }
    keys.insert(key);
    entries.push_back({now, key});
    return false;
}
