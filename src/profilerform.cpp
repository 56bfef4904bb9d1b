#include "profilerform.h"

#include "channelhistory.h"
#include "codechistory.h"
#include "cpuhistory.h"
#include "dspnettree.h"
#include "linegraph.h"
#include "profilerdspnetgraph.h"
#include "profilernetwork.h"
#include "statshistory.h"

#include <QFontMetrics>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPainter>
#include <QPushButton>
#include <QSplitter>
#include <QStyle>
#include <QVBoxLayout>

namespace
{

// The status line gives way to the connection fields: a text too long for
// the room left is cut with an ellipsis instead of widening the window. The
// label keeps the whole text, and shows it as a tool tip when cut.
class StatusLabel : public QLabel
{
public:
    QSize minimumSizeHint() const override
    {
        QSize size = QLabel::minimumSizeHint();
        size.setWidth(qMin(size.width(), fontMetrics().horizontalAdvance(QStringLiteral("Disconnected."))));
        return size;
    }

protected:
    void paintEvent(QPaintEvent* event) override
    {
        const QRect area = contentsRect();
        const bool cut = fontMetrics().horizontalAdvance(text()) > area.width();
        setToolTip(cut ? text() : QString());
        if (!cut) {
            QLabel::paintEvent(event);
            return;
        }
        QPainter painter(this);
        const QString shown = fontMetrics().elidedText(text(), Qt::ElideRight, area.width());
        style()->drawItemText(&painter, area, int(alignment()), palette(), isEnabled(), shown, foregroundRole());
    }
};

} // namespace

ProfilerForm::ProfilerForm(QWidget* parent, Qt::WindowFlags flags)
    : QWidget(parent, flags)
{
    // The collectors connect to packetReady() in their constructors, so this
    // order is also the order in which they take their packets.
    network = new ProfilerNetwork();
    dspTree = new DSPTree(network);
    cpuHistory = new CPUHistory(network);
    channelHistory = new ChannelHistory(network);
    codecHistory = new CodecHistory(network);
    statsHistory = new StatsHistory(network);
    uiConnecting = false;
    uiConnected = false;

    statusCaptionLabel = new QLabel();
    statusLabel = new StatusLabel();
    ipLabel = new QLabel();
    ipEdit = new QLineEdit();
    portLabel = new QLabel();
    portEdit = new QLineEdit();
    connectButton = new QPushButton();
    pauseButton = new QPushButton();
    connectionLayout = new QHBoxLayout();
    dspNetGraphPanel = new ProfilerDSPNetGraph(dspTree);
    splitter = new QSplitter();
    lineGraphPanel = new ProfilerLineGraph(cpuHistory, channelHistory, codecHistory, statsHistory);
    mainLayout = new QVBoxLayout();
    nameWidgets();

    connect(network, &ProfilerNetwork::statusChanged, this, &ProfilerForm::slotStatusChanged);
    connect(dspTree, &DSPTree::statusChanged, this, &ProfilerForm::slotStatusChanged);
    connect(cpuHistory, &CPUHistory::statusChanged, this, &ProfilerForm::slotStatusChanged);
    connect(channelHistory, &ChannelHistory::statusChanged, this, &ProfilerForm::slotStatusChanged);
    connect(codecHistory, &CodecHistory::statusChanged, this, &ProfilerForm::slotStatusChanged);
    connect(statsHistory, &StatsHistory::statusChanged, this, &ProfilerForm::slotStatusChanged);
    connect(connectButton, &QPushButton::clicked, this, &ProfilerForm::slotConnect);
    connect(pauseButton, &QPushButton::clicked, this, &ProfilerForm::slotPause);

    statusCaptionLabel->setText(QStringLiteral("Status:"));
    statusLabel->setText(QStringLiteral("Disconnected."));
    ipLabel->setText(QStringLiteral("IP:"));
    portLabel->setText(QStringLiteral("Port:"));

    const QFontMetrics metrics(ipEdit->font());
    ipEdit->setInputMask(QStringLiteral("000.000.000.000;_"));
    ipEdit->setAlignment(Qt::AlignHCenter);
    ipEdit->setText(QStringLiteral("127.0.0.1"));
    ipEdit->setMaximumWidth(metrics.horizontalAdvance(QStringLiteral("  000.000.000.000  ")));
    ipEdit->setSizePolicy(QSizePolicy::Minimum, QSizePolicy::Preferred);

    portEdit->setInputMask(QStringLiteral("00000;_"));
    portEdit->setAlignment(Qt::AlignHCenter);
    portEdit->setText(QStringLiteral("%1").arg(9264));
    portEdit->setMaximumWidth(metrics.horizontalAdvance(QStringLiteral("  00000  ")));
    portEdit->setSizePolicy(QSizePolicy::Minimum, QSizePolicy::Preferred);

    connectButton->setText(QStringLiteral("Connect"));
    pauseButton->setText(QStringLiteral("Pause"));
    pauseButton->setEnabled(false);

    connectionLayout->setContentsMargins(2, 2, 2, 2);
    connectionLayout->addWidget(statusCaptionLabel);
    connectionLayout->addWidget(statusLabel);
    connectionLayout->addStretch();
    connectionLayout->addWidget(ipLabel);
    connectionLayout->addWidget(ipEdit);
    connectionLayout->addWidget(portLabel);
    connectionLayout->addWidget(portEdit);
    connectionLayout->addWidget(connectButton);
    connectionLayout->addWidget(pauseButton);
    connectionLayout->setSpacing(6);

    dspNetGraphPanel->layout()->setContentsMargins(0, 0, 0, 6);
    lineGraphPanel->layout()->setContentsMargins(0, 6, 0, 0);

    splitter->setOrientation(Qt::Vertical);
    splitter->setChildrenCollapsible(false);
    splitter->setOpaqueResize(false);
    splitter->setContentsMargins(0, 0, 0, 0);
    splitter->addWidget(dspNetGraphPanel);
    splitter->addWidget(lineGraphPanel);
    splitter->setStretchFactor(0, 1);

    mainLayout->addLayout(connectionLayout);
    mainLayout->addWidget(splitter);
    mainLayout->setSpacing(2);
    setLayout(mainLayout);

    setWindowTitle(QStringLiteral("Profiler"));
}

// Names let tests and style sheets find the bar's widgets.
void ProfilerForm::nameWidgets()
{
    statusLabel->setObjectName(QStringLiteral("statusLabel"));
    ipEdit->setObjectName(QStringLiteral("ipEdit"));
    portEdit->setObjectName(QStringLiteral("portEdit"));
    connectButton->setObjectName(QStringLiteral("connectButton"));
    pauseButton->setObjectName(QStringLiteral("pauseButton"));
}

// The statistics collector is deleted too (first): leaving it would only
// leak it at exit and hide real leaks from the leak checker.
ProfilerForm::~ProfilerForm()
{
    delete statsHistory;
    statsHistory = nullptr;
    delete codecHistory;
    codecHistory = nullptr;
    delete channelHistory;
    channelHistory = nullptr;
    delete cpuHistory;
    cpuHistory = nullptr;
    delete dspTree;
    dspTree = nullptr;
    delete network;
    network = nullptr;
}

void ProfilerForm::requestData(bool on)
{
    network->requestProfileStreams(on);
}

void ProfilerForm::setPaused(bool paused)
{
    network->paused = paused;
}

bool ProfilerForm::getPaused()
{
    return network->paused;
}

ProfilerNetwork* ProfilerForm::getNetwork()
{
    return network;
}

QString ProfilerForm::getTargetHost() const
{
    return ipEdit->text();
}

quint16 ProfilerForm::getTargetPort() const
{
    return portEdit->text().toUShort(nullptr, 10);
}

void ProfilerForm::slotConnect()
{
    if (network->isConnected() || network->isConnecting())
        network->disconnectFromHost();
    else
        network->connectToHost(ipEdit->text(), portEdit->text().toUShort(nullptr, 10));
}

void ProfilerForm::slotPause()
{
    network->paused = !network->paused;
    pauseButton->setText(network->paused ? QStringLiteral("Resume") : QStringLiteral("Pause"));
}

void ProfilerForm::slotStatusChanged(QString status)
{
    const bool wasConnecting = uiConnecting;
    const bool wasConnected = uiConnected;

    statusLabel->setText(status);

    if (!wasConnecting && network->isConnecting())
        applyConnectingLook();

    const bool connectedNow = network->isConnected();
    if (wasConnected) {
        if (!connectedNow) {
            applyDisconnectedLook();
            return;
        }
    } else if (connectedNow) {
        applyConnectedLook();
        requestData(true);
        return;
    }

    if (wasConnecting && !network->isConnecting() && !connectedNow) {
        applyDisconnectedLook();
        showConnectionError();
    }
}

void ProfilerForm::closeEvent(QCloseEvent*)
{
    emit signalWindowClose();
}

void ProfilerForm::applyDisconnectedLook()
{
    applyLook(false, false);
}

void ProfilerForm::applyConnectingLook()
{
    applyLook(true, false);
}

void ProfilerForm::applyConnectedLook()
{
    applyLook(false, true);
}

// Each look sets the whole bar at once; every change of look also ends a
// pause, so views never stay frozen across a reconnection.
void ProfilerForm::applyLook(bool connectingLook, bool connectedLook)
{
    uiConnecting = connectingLook;
    uiConnected = connectedLook;
    network->paused = false;
    const bool editable = !connectingLook && !connectedLook;
    ipEdit->setEnabled(editable);
    portEdit->setEnabled(editable);
    connectButton->setText(editable ? QStringLiteral("Connect") : QStringLiteral("Disconnect"));
    pauseButton->setEnabled(connectedLook);
    pauseButton->setText(QStringLiteral("Pause"));
}

void ProfilerForm::showConnectionError()
{
    QMessageBox box(QMessageBox::Information, QStringLiteral("Connection Error"),
                    QStringLiteral("Could not connect to target."), QMessageBox::NoButton, this);
    box.setInformativeText(QStringLiteral(
        "> Target IP address or port is incorrect.\n\n"
        "> Target is not running or not yet initialized.\n\n"
        "> Target has not enabled profiling with TARN_INIT_PROFILE_ENABLE in System::init."));
    box.exec();
}
