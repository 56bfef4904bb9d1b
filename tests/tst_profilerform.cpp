#include "loopbacktarget.h"
#include "mainform.h"
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
    explicit Bar(ProfilerForm& form)
        : status(form.findChild<QLabel*>(QStringLiteral("statusLabel")))
        , ip(form.findChild<QLineEdit*>(QStringLiteral("ipEdit")))
        , port(form.findChild<QLineEdit*>(QStringLiteral("portEdit")))
        , connect(form.findChild<QPushButton*>(QStringLiteral("connectButton")))
        , pause(form.findChild<QPushButton*>(QStringLiteral("pauseButton")))
    {
    }

    // The look as one comparable string: edits enabled, connect text, pause state.
    QString look() const
    {
        return QStringLiteral("%1 %2 %3 %4")
            .arg(ip->isEnabled() && port->isEnabled() ? "editable" : "locked", connect->text(),
                 pause->isEnabled() ? "pause-on" : "pause-off", pause->text());
    }

    QLabel* status;
    QLineEdit* ip;
    QLineEdit* port;
    QPushButton* connect;
    QPushButton* pause;
};

struct BoxContents
{
    bool seen = false;
    QString title, text, informative;
    QMessageBox::Icon icon = QMessageBox::NoIcon;
};

// Closes the next modal message box and records what it said.
void closeNextMessageBox(BoxContents* contents)
{
    auto* poll = new QTimer;
    QObject::connect(poll, &QTimer::timeout, [poll, contents] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (!box)
            return;
        contents->seen = true;
        contents->title = box->windowTitle();
        contents->text = box->text();
        contents->informative = box->informativeText();
        contents->icon = box->icon();
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
    void startsDisconnected();
    void connectRequestsTheSixStreams();
    void pauseTogglesAndALinkDropEndsIt();
    void refusedConnectionShowsTheErrorBox();
    void statusTextsOfCollectorsDoNotChangeTheLook();
};

void TestProfilerForm::startsDisconnected()
{
    MainForm window;
    ProfilerForm* form = window.profilerForm;
    QCOMPARE(window.centralWidget(), form);
    Bar bar(*form);
    QCOMPARE(bar.status->text(), QStringLiteral("Disconnected."));
    QCOMPARE(bar.ip->text(), QStringLiteral("127.0.0.1"));
    QCOMPARE(bar.port->text(), QStringLiteral("9264"));
    QCOMPARE(bar.look(), DisconnectedLook);
    QCOMPARE(form->windowTitle(), QStringLiteral("Profiler"));
    QVERIFY(!form->getPaused());
}

void TestProfilerForm::connectRequestsTheSixStreams()
{
    LoopbackTarget target;
    ProfilerForm form;
    Bar bar(form);
    bar.port->setText(QString::number(target.port()));

    QTest::mouseClick(bar.connect, Qt::LeftButton);
    QCOMPARE(bar.status->text(), QStringLiteral("Attempting to connect..."));
    QCOMPARE(bar.look(), ConnectingLook);

    QVERIFY(target.waitForReceived(6 * 18));
    QCOMPARE(bar.status->text(), QStringLiteral("Connected."));
    QCOMPARE(bar.look(), ConnectedLook);

    QByteArray expected;
    const int streams[][2] = { { 1, 100 }, { 7, 100 }, { 3, 200 }, { 4, 200 }, { 5, 200 }, { 9, 200 } };
    for (const auto& stream : streams) {
        expected += QByteArray::fromHex("120000000000000000000000");
        expected += char(stream[0]);
        expected += char(0);
        expected += char(stream[1]);
        expected += QByteArray(3, '\0');
    }
    QCOMPARE(target.received().toHex(), expected.toHex());

    // Disconnect from the connected look: no box, straight back to disconnected.
    QTest::mouseClick(bar.connect, Qt::LeftButton);
    QCOMPARE(bar.status->text(), QStringLiteral("Disconnected."));
    QCOMPARE(bar.look(), DisconnectedLook);
}

void TestProfilerForm::pauseTogglesAndALinkDropEndsIt()
{
    LoopbackTarget target;
    ProfilerForm form;
    Bar bar(form);
    bar.port->setText(QString::number(target.port()));
    QTest::mouseClick(bar.connect, Qt::LeftButton);
    QVERIFY(QTest::qWaitFor([&] { return bar.look() == ConnectedLook; }, 5000));

    QTest::mouseClick(bar.pause, Qt::LeftButton);
    QVERIFY(form.getPaused());
    QCOMPARE(bar.pause->text(), QStringLiteral("Resume"));
    QTest::mouseClick(bar.pause, Qt::LeftButton);
    QVERIFY(!form.getPaused());
    QCOMPARE(bar.pause->text(), QStringLiteral("Pause"));

    QTest::mouseClick(bar.pause, Qt::LeftButton);
    QVERIFY(target.waitForClient());
    target.closeClient();
    QVERIFY(QTest::qWaitFor([&] { return bar.status->text() == QStringLiteral("Target closed... Attempting reconnection."); }, 5000));
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
    Bar bar(form);
    bar.port->setText(QString::number(closedPort));

    BoxContents box;
    closeNextMessageBox(&box);
    QTest::mouseClick(bar.connect, Qt::LeftButton);
    QVERIFY(QTest::qWaitFor([&] { return box.seen; }, 5000));

    QCOMPARE(box.title, QStringLiteral("Connection Error"));
    QCOMPARE(box.text, QStringLiteral("Could not connect to target."));
    QCOMPARE(box.informative,
             QStringLiteral("> Target IP address or port is incorrect.\n\n"
                            "> Target is not running or not yet initialized.\n\n"
                            "> Target has not enabled profiling with TARN_INIT_PROFILE_ENABLE in System::init."));
    QCOMPARE(box.icon, QMessageBox::Information);
    QCOMPARE(bar.status->text(), QStringLiteral("Connection failed... Disconnected."));
    QCOMPARE(bar.look(), DisconnectedLook);
}

void TestProfilerForm::statusTextsOfCollectorsDoNotChangeTheLook()
{
    LoopbackTarget target;
    ProfilerForm form;
    Bar bar(form);
    bar.port->setText(QString::number(target.port()));
    QTest::mouseClick(bar.connect, Qt::LeftButton);
    QVERIFY(target.waitForReceived(6 * 18));
    target.clearReceived();

    const QString oldVersion = QStringLiteral("Connected. (Old version detected, reduced functionality)");
    form.slotStatusChanged(oldVersion);
    QCOMPARE(bar.status->text(), oldVersion);
    QCOMPARE(bar.look(), ConnectedLook);
    // Staying connected sends no second round of requests.
    QTest::qWait(100);
    QCOMPARE(target.received().size(), 0);
}

QTEST_MAIN(TestProfilerForm)
#include "tst_profilerform.moc"
