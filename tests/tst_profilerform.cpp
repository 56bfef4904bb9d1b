#include "loopbacktarget.h"
#include "packetbuilder.h"
#include "profilerform.h"

#include <QApplication>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>
#include <QTimer>

namespace
{

struct Bar
{
    ProfilerForm& form;
    QLabel* status = form.findChild<QLabel*>(QStringLiteral("statusLabel"));
    QLineEdit* ip = form.findChild<QLineEdit*>(QStringLiteral("ipEdit"));
    QLineEdit* port = form.findChild<QLineEdit*>(QStringLiteral("portEdit"));
    QPushButton* connect = form.findChild<QPushButton*>(QStringLiteral("connectButton"));
    QPushButton* pause = form.findChild<QPushButton*>(QStringLiteral("pauseButton"));

    // The bar as one comparable string: status text, edits enabled, connect
    // text, pause button, then " paused" while the form holds the views.
    QString look() const
    {
        return QStringLiteral("%1 | %2 %3 %4 %5%6")
            .arg(status->text(), ip->isEnabled() && port->isEnabled() ? "editable" : "locked", connect->text(),
                 pause->isEnabled() ? "pause-on" : "pause-off", pause->text(), form.getPaused() ? " paused" : "");
    }
};

const QString DisconnectedLook = QStringLiteral("editable Connect pause-off Pause");
const QString ConnectingLook = QStringLiteral("locked Disconnect pause-off Pause");
const QString ConnectedLook = QStringLiteral("locked Disconnect pause-on Pause");
const QString PausedLook = QStringLiteral("locked Disconnect pause-on Resume paused");

} // namespace

class TestProfilerForm : public QObject
{
    Q_OBJECT

private slots:
    void connectPauseAndDisconnect();
    void refusedConnectionShowsTheErrorBox();
};

void TestProfilerForm::connectPauseAndDisconnect()
{
    LoopbackTarget target;
    ProfilerForm form;
    Bar bar{ form };
    QCOMPARE(bar.port->text(), QStringLiteral("9264"));
    QCOMPARE(bar.look(), "Disconnected. | " + DisconnectedLook);
    bar.port->setText(QString::number(target.port())); // the address stays the default, 127.0.0.1

    QTest::mouseClick(bar.connect, Qt::LeftButton);
    QCOMPARE(bar.look(), "Attempting to connect... | " + ConnectingLook);
    QVERIFY(target.waitForReceived(6 * 18));
    QCOMPARE(bar.look(), "Connected. | " + ConnectedLook);
    QByteArray expected;
    // The DSP network and the group list every 100 ms, the histories every 200 ms.
    for (int type : { 1, 7, 3, 4, 5, 9 })
        expected += PacketBuilder(0, 0, 0).u8(quint8(type)).u8(0).u32(type == 1 || type == 7 ? 100 : 200).finish();
    QCOMPARE(target.received().toHex(), expected.toHex());
    target.clearReceived();

    // A collector's status text changes neither the look nor the requests.
    const QString oldVersion = QStringLiteral("Connected. (Old version detected, reduced functionality)");
    form.slotStatusChanged(oldVersion);
    QCOMPARE(bar.look(), oldVersion + " | " + ConnectedLook);
    QTest::qWait(100);
    QCOMPARE(target.received().size(), 0);

    QTest::mouseClick(bar.pause, Qt::LeftButton);
    QCOMPARE(bar.look(), oldVersion + " | " + PausedLook);
    QTest::mouseClick(bar.pause, Qt::LeftButton);
    QCOMPARE(bar.look(), oldVersion + " | " + ConnectedLook);

    // Disconnecting from the connected look shows no box and ends a pause.
    QTest::mouseClick(bar.pause, Qt::LeftButton);
    QTest::mouseClick(bar.connect, Qt::LeftButton);
    QCOMPARE(bar.look(), "Disconnected. | " + DisconnectedLook);

    // So does the target closing the link.
    QVERIFY(QTest::qWaitFor([&] { return !target.hasClient(); }, 5000));
    QTest::mouseClick(bar.connect, Qt::LeftButton);
    QVERIFY(target.waitForReceived(6 * 18));
    QTest::mouseClick(bar.pause, Qt::LeftButton);
    QCOMPARE(bar.look(), "Connected. | " + PausedLook);
    target.closeClient();
    QTRY_COMPARE(bar.status->text(), QStringLiteral("Target closed... Attempting reconnection."));
    // Unpaused, whichever look the retry has reached; never the connected one.
    QVERIFY2(bar.look().endsWith(QStringLiteral("pause-off Pause")), qPrintable(bar.look()));
}

void TestProfilerForm::refusedConnectionShowsTheErrorBox()
{
    ProfilerForm form;
    Bar bar{ form };
    bar.port->setText(QString::number(LoopbackTarget().port())); // closed again at once

    // Closes the box once it is up, keeping its title, texts and icon.
    QStringList box;
    QTimer poll;
    connect(&poll, &QTimer::timeout, [&box] {
        if (auto* shown = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
            box << shown->windowTitle() << shown->text() << shown->informativeText() << QString::number(shown->icon());
            shown->done(0);
        }
    });
    poll.start(20);
    QTest::mouseClick(bar.connect, Qt::LeftButton);
    QTRY_COMPARE(box, QStringList({ "Connection Error", "Could not connect to target.",
                                    "> Target IP address or port is incorrect.\n\n"
                                    "> Target is not running or not yet initialized.\n\n"
                                    "> Target has not enabled profiling with TARN_INIT_PROFILE_ENABLE in System::init.",
                                    QString::number(QMessageBox::Information) }));
    QCOMPARE(bar.look(), "Connection failed... Disconnected. | " + DisconnectedLook);
}

QTEST_MAIN(TestProfilerForm)
#include "tst_profilerform.moc"
