// SPDX-License-Identifier: MIT
#pragma once

#include "model_protocoldata.h"

#include <QStringList>

#include <cstddef>
#include <vector>

/// What the links have handed to the reference host.
namespace hostqueue
{

void clear();                              ///< empties the queue, lowers the flag
std::size_t size();                        ///< records in the queue
std::vector<model_Protocoldata> records(); ///< a copy of the queue, oldest first
bool flag();                               ///< biz_CMDSWork::bRetFlag
void setFlag(bool on);

QStringList logLines();                  ///< the log's lines so far, without time and thread
qsizetype countLog(const QString& line); ///< how many of them are exactly this

} // namespace hostqueue
