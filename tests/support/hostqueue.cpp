// SPDX-License-Identifier: MIT
#include "hostqueue.h"

#include "biz_cmdswork.h"
#include "utility_manage.h"

#include <QFile>

void hostqueue::clear()
{
    const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
    biz_CMDSWork::receivequeueHexCmd.clear();
    setFlag(false);
}

std::size_t hostqueue::size()
{
    const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
    return biz_CMDSWork::receivequeueHexCmd.size();
}

std::vector<model_Protocoldata> hostqueue::records()
{
    const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
    return {biz_CMDSWork::receivequeueHexCmd.begin(), biz_CMDSWork::receivequeueHexCmd.end()};
}

bool hostqueue::flag()
{
    const std::lock_guard lock(biz_CMDSWork::HexCmdlock);
    return biz_CMDSWork::bRetFlag;
}

void hostqueue::setFlag(bool on)
{
    const std::lock_guard lock(biz_CMDSWork::HexCmdlock);
    biz_CMDSWork::bRetFlag = on;
}

QStringList hostqueue::logLines()
{
    QFile file(Utility_Manage::logFile());
    QStringList lines;
    if (file.open(QIODevice::ReadOnly)) {
        while (!file.atEnd()) {
            const QString line = QString::fromUtf8(file.readLine());
            const auto text = line.indexOf(QStringLiteral("] ")) + 2;
            lines << line.mid(text, line.size() - text - 1);
        }
    }
    return lines;
}

qsizetype hostqueue::countLog(const QString& line)
{
    return logLines().count(line);
}
