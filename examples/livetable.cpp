// SPDX-License-Identifier: MIT
// A host with a window: a live table of replies and a plot of the round trip. Nothing blocks: one
// timer looks at the queue, and a command goes out when the one before has its reply or none came.
//
//   coremanage simulate udp://127.0.0.1:1000 --fault delay=50%:20    # stands in for the device
//   livetable 127.0.0.1 1000
#include "corefactory.h"
#include "icorebase.h"
#include "replies.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QElapsedTimer>
#include <QHeaderView>
#include <QLoggingCategory>
#include <QPainter>
#include <QTableWidget>
#include <QTime>
#include <QVBoxLayout>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

namespace
{

constexpr int rowsShown = 100;
constexpr int tripsShown = 120;
constexpr qint64 timeOutMs = 1000;
constexpr std::chrono::milliseconds lookInterval{2}; // what the round trip is exact to
constexpr std::chrono::milliseconds sendInterval{50};

/// The last round trips, newest at the right. A command without reply leaves a gap.
class Plot : public QWidget
{
public:
    explicit Plot(QWidget* parent) : QWidget(parent) { setMinimumHeight(160); }

    void add(double milliseconds)
    {
        trips.push_back(milliseconds);
        if (trips.size() > tripsShown) {
            trips.erase(trips.begin());
        }
        update();
    }

protected:
    void paintEvent(QPaintEvent* /*event*/) override
    {
        QPainter painter(this);
        painter.fillRect(rect(), palette().base());
        const double highest =
            trips.empty() ? 1 : std::max(1.0, *std::max_element(trips.begin(), trips.end()));
        painter.drawText(rect().adjusted(4, 2, -4, -2), Qt::AlignTop | Qt::AlignLeft,
                         QString("round trip, 0 to %1 ms").arg(highest, 0, 'f', 1));
        const QRectF area = QRectF(rect()).adjusted(4, 24, -4, -4);
        const double step = area.width() / tripsShown;
        for (std::size_t i = 0; i < trips.size(); ++i) {
            const double shown = trips[i] / highest * area.height();
            const double height = trips[i] > 0 ? std::max(1.0, shown) : 0;
            painter.fillRect(QRectF(area.left() + static_cast<double>(i) * step,
                                    area.bottom() - height, step * 0.7, height),
                             palette().highlight());
        }
    }

private:
    std::vector<double> trips;
};

class Window : public QWidget
{
public:
    Window(const QString& address, int port, int replies)
        : link(CoreFactory::creatCoreObjInstance(ConnUdp)), wanted(replies),
          table(new QTableWidget(0, 4, this)), plot(new Plot(this))
    {
        link->setDeviceIP(address);
        link->setPort(port);
        setWindowTitle(QString("udp://%1:%2").arg(address).arg(port));
        resize(640, 480);
        table->setHorizontalHeaderLabels({"time", "from", "reply", "round trip"});
        table->horizontalHeader()->setSectionResizeMode(QHeaderView::Stretch);
        table->verticalHeader()->hide();
        table->setEditTriggers(QAbstractItemView::NoEditTriggers);
        auto* const layout = new QVBoxLayout(this);
        layout->addWidget(table, 1);
        layout->addWidget(plot);
        connect(&look, &QTimer::timeout, this, [this] { takeWhatCame(); });
        connect(&pause, &QTimer::timeout, this, [this] { send(); });
        pause.setSingleShot(true);
        look.start(lookInterval);
        pause.start(sendInterval);
    }

private:
    void send()
    {
        command.CMD = 0x8b;
        command.DAT1 = 5;
        ++command.DAT2; // tells this reply from a late one
        takeReplies();
        sinceSend.start();
        link->sendDatatoDevice(&command);
    }

    void takeWhatCame()
    {
        const Replies come = takeReplies();
        if (!sinceSend.isValid()) {
            return; // between two commands
        }
        for (const model_Protocoldata& record : come.records) {
            if (answers(record, command)) {
                finish(record.strKey2, QString("%1 bytes").arg(record.arryDatablock.size()));
                return;
            }
        }
        if (come.wasRaised && come.records.empty()) {
            finish({}, "damaged");
        } else if (sinceSend.hasExpired(timeOutMs)) {
            finish({}, "none");
        }
    }

    void finish(const QString& from, const QString& text)
    {
        const bool isReply = !from.isEmpty();
        const double trip = static_cast<double>(sinceSend.nsecsElapsed()) / 1e6;
        sinceSend.invalidate();
        const QStringList cells{QTime::currentTime().toString("hh:mm:ss.zzz"), from, text,
                                isReply ? QString("%1 ms").arg(trip, 0, 'f', 1) : QString()};
        table->insertRow(0);
        for (int column = 0; column < cells.size(); ++column) {
            table->setItem(0, column, new QTableWidgetItem(cells.at(column)));
        }
        table->setRowCount(std::min(table->rowCount(), rowsShown));
        plot->add(isReply ? trip : 0);
        got += isReply ? 1 : 0;
        lost += isReply ? 0 : 1;
        if (got == wanted) {
            std::printf("%d replies, %d lost\n", got, lost);
            QCoreApplication::quit();
            return;
        }
        pause.start(sendInterval);
    }

    const std::unique_ptr<ICoreBase> link;
    const int wanted;
    QTableWidget* const table;
    Plot* const plot;
    QTimer look;
    QTimer pause;
    QElapsedTimer sinceSend; // valid while a command waits for its reply
    model_Protocoldata command;
    int got = 0;
    int lost = 0;
};

} // namespace

int main(int argc, char** argv)
{
    const QApplication application(argc, argv);
    QLoggingCategory::setFilterRules("default.debug=false");
    QCommandLineParser parser;
    parser.addPositionalArgument("ADDRESS", "of the device");
    parser.addPositionalArgument("PORT", "of the device");
    const QCommandLineOption replies("replies", "end after so many replies", "N", "0");
    const QCommandLineOption picture("picture", "write a picture of the window at the end", "FILE");
    parser.addOptions({replies, picture});
    parser.addHelpOption();
    parser.process(application);
    const QStringList place = parser.positionalArguments();
    if (place.size() != 2) {
        parser.showHelp(2);
    }
    Window window(place.at(0), place.at(1).toInt(), parser.value(replies).toInt());
    window.show();
    const int code = QApplication::exec();
    if (parser.isSet(picture) && !window.grab().save(parser.value(picture), "PNG")) {
        std::fprintf(stderr, "%s: cannot be written\n", qPrintable(parser.value(picture)));
        return 1;
    }
    return code;
}
