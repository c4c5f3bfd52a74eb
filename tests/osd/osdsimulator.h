// SPDX-License-Identifier: MIT
#pragma once

#include "faults.h"

#include <QByteArray>
#include <QString>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

class QAbstractEventDispatcher;

struct OsdSimulatorOptions {
    QString address = QStringLiteral("127.0.0.1");
    quint16 port = 10001;          ///< 0: any that is free
    std::optional<int> dataLength; ///< see CommandReader
    Faults faults;
};

/// A simulated on-screen-display endpoint on a thread of its own, which serves while a test blocks,
/// and counts what it has seen.
///
/// Any thread may call any operation; each waits for the endpoint's thread.
class OsdSimulator
{
public:
    explicit OsdSimulator(const OsdSimulatorOptions& options);
    ~OsdSimulator(); ///< hangs up everywhere and ends
    OsdSimulator(const OsdSimulator&) = delete;
    OsdSimulator& operator=(const OsdSimulator&) = delete;

    bool start();          ///< begins to serve; false, with the reason in error(), if it cannot
    QString error() const; ///< of start
    quint16 port() const;  ///< the one it got

    void setFaults(const Faults& faults);
    void setFault(Fault fault, const Faults::Setting& setting);
    void hangUp(bool reset);
    void send(const QByteArray& bytes); ///< as they are, to everyone who is connected

    int accepted() const;                     ///< connections so far
    qsizetype connected() const;              ///< connections now
    int good() const;                         ///< commands so far
    qint64 noise() const;                     ///< bytes that were no command
    qint64 answers() const;                   ///< acknowledgements given so far
    QByteArray received() const;              ///< every byte so far, in order of arrival
    qint64 receivedBytes() const;             ///< how many those are
    std::vector<QByteArray> commands() const; ///< so far
    std::vector<quint16> peerPorts() const;   ///< the port at the other end of each connection

private:
    struct Endpoint;
    void serve(const OsdSimulatorOptions& options);
    void perform(const std::function<void(Endpoint&)>& task) const; // on the thread
    template <class Question>
    auto ask(Question question) const; // what it says of the endpoint

    mutable std::mutex lock; // a leaf: everything below
    mutable std::condition_variable changed;
    mutable std::function<void(Endpoint&)> open;    // the task to perform next; empty: none
    QAbstractEventDispatcher* dispatcher = nullptr; // while the thread serves
    bool ending = false;
    std::thread thread;
};
