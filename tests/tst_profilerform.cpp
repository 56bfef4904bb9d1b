#include "loopbacktarget.h"
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

    // The look as one comparable string: edits enabled, connect text, pause state.
    QString look() const
    {
        return QStringLiteral("%1 %2 %3 %4")
            .arg(ip->isEnabled() && port->isEnabled() ? "editable" : "locked", connect->text(),
                 pause->isEnabled() ? "pause-on" : "pause-off", pause->text());
    }
};

// Closes the next modal message box and records its title, texts and icon.
void closeNextMessageBox(QStringList* contents)
{
    auto* poll = new QTimer;
    QObject::connect(poll, &QTimer::timeout, [poll, contents] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (!box)
            return;
        *contents << box->windowTitle() << box->text() << box->informativeText() << QString::number(box->icon());
        box->done(0);
        poll->deleteLater();
    });
    poll->start(20);
}

const QString DisconnectedLook = QStringLiteral("editable Connect pause-off Pause");
const QString ConnectingLook = QStringLiteral("locked Disconnect pause-off Pause");
const QString ConnectedLook = QStringLiteral("locked Disconnect pause-on Pause");

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
    QCOMPARE(bar.status->text(), QStringLiteral("Disconnected."));
    QCOMPARE(bar.port->text(), QStringLiteral("9264"));
    QCOMPARE(bar.look(), DisconnectedLook);
    bar.port->setText(QString::number(target.port())); // the address stays the default, 127.0.0.1

    QTest::mouseClick(bar.connect, Qt::LeftButton);
    QCOMPARE(bar.status->text(), QStringLiteral("Attempting to connect..."));
    QCOMPARE(bar.look(), ConnectingLook);
    QVERIFY(target.waitForReceived(6 * 18));
    QCOMPARE(bar.status->text(), QStringLiteral("Connected."));
    QCOMPARE(bar.look(), ConnectedLook);
    QByteArray expected;
    const int streams[][2] = { { 1, 100 }, { 7, 100 }, { 3, 200 }, { 4, 200 }, { 5, 200 }, { 9, 200 } };
    for (const auto& stream : streams) {
        expected += QByteArray::fromHex("120000000000000000000000") + char(stream[0]) + '\0' + char(stream[1])
            + QByteArray(3, '\0');
    }
    QCOMPARE(target.received().toHex(), expected.toHex());
    target.clearReceived();

    // A collector's status text changes neither the look nor the requests.
    const QString oldVersion = QStringLiteral("Connected. (Old version detected, reduced functionality)");
    form.slotStatusChanged(oldVersion);
    QCOMPARE(bar.status->text(), oldVersion);
    QCOMPARE(bar.look(), ConnectedLook);
    QTest::qWait(100);
    QCOMPARE(target.received().size(), 0);

    QTest::mouseClick(bar.pause, Qt::LeftButton);
    QVERIFY(form.getPaused());
    QCOMPARE(bar.pause->text(), QStringLiteral("Resume"));
    QTest::mouseClick(bar.pause, Qt::LeftButton);
    QVERIFY(!form.getPaused());
    QCOMPARE(bar.pause->text(), QStringLiteral("Pause"));

    // Disconnecting from the connected look shows no box and ends a pause.
    QTest::mouseClick(bar.pause, Qt::LeftButton);
    QTest::mouseClick(bar.connect, Qt::LeftButton);
    QCOMPARE(bar.status->text(), QStringLiteral("Disconnected."));
    QCOMPARE(bar.look(), DisconnectedLook);
    QVERIFY(!form.getPaused());

    // So does the target closing the link.
    QVERIFY(QTest::qWaitFor([&] { return !target.hasClient(); }, 5000));
    QTest::mouseClick(bar.connect, Qt::LeftButton);
    QVERIFY(target.waitForReceived(6 * 18));
    QTest::mouseClick(bar.pause, Qt::LeftButton);
    QVERIFY(form.getPaused());
    target.closeClient();
    QVERIFY(QTest::qWaitFor(
        [&] { return bar.status->text() == QStringLiteral("Target closed... Attempting reconnection."); }, 5000));
    QVERIFY(!form.getPaused());
    QCOMPARE(bar.pause->text(), QStringLiteral("Pause"));
    QVERIFY(bar.look() != ConnectedLook);
}

void TestProfilerForm::refusedConnectionShowsTheErrorBox()
{
    quint16 closedPort;
    {
        LoopbackTarget target;
        closedPort = target.port();
    }
    ProfilerForm form;
    Bar bar{ form };
    bar.port->setText(QString::number(closedPort));

    QStringList box;
    closeNextMessageBox(&box);
    QTest::mouseClick(bar.connect, Qt::LeftButton);
    QVERIFY(QTest::qWaitFor([&] { return !box.isEmpty(); }, 5000));
    QCOMPARE(box, QStringList({ "Connection Error", "Could not connect to target.",
                                "> Target IP address or port is incorrect.\n\n"
                                "> Target is not running or not yet initialized.\n\n"
                                "> Target has not enabled profiling with TARN_INIT_PROFILE_ENABLE in System::init.",
                                QString::number(QMessageBox::Information) }));
    QCOMPARE(bar.status->text(), QStringLiteral("Connection failed... Disconnected."));
    QCOMPARE(bar.look(), DisconnectedLook);
}

QTEST_MAIN(TestProfilerForm)
#include "tst_profilerform.moc"
