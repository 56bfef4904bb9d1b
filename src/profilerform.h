#ifndef PROFILERFORM_H
#define PROFILERFORM_H

#include <QString>
#include <QWidget>

class QCloseEvent;
class QHBoxLayout;
class QLabel;
class QLineEdit;
class QPushButton;
class QSplitter;
class QVBoxLayout;
class ChannelHistory;
class CodecHistory;
class CPUHistory;
class DSPTree;
class ProfilerDSPNetGraph;
class ProfilerLineGraph;
class ProfilerNetwork;
class StatsHistory;

// The main form: connection bar, status line and the two view panels. It
// owns the network link and the collectors that feed the panels.
class ProfilerForm : public QWidget
{
    Q_OBJECT

public:
    explicit ProfilerForm(QWidget* parent = nullptr, Qt::WindowFlags flags = Qt::WindowFlags());
    ~ProfilerForm() override;

    void requestData(bool on);
    void setPaused(bool paused);
    bool getPaused();
    ProfilerNetwork* getNetwork();
    // What the address and port fields hold now.
    QString getTargetHost() const;
    quint16 getTargetPort() const;

signals:
    void signalWindowClose();

public slots:
    void slotConnect();
    void slotPause();
    void slotStatusChanged(QString status);

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    void nameWidgets();
    void applyDisconnectedLook();
    void applyConnectingLook();
    void applyConnectedLook();
    void applyLook(bool connectingLook, bool connectedLook);
    void showConnectionError();

    ProfilerNetwork* network;
    DSPTree* dspTree;
    CPUHistory* cpuHistory;
    ChannelHistory* channelHistory;
    CodecHistory* codecHistory;
    StatsHistory* statsHistory;
    bool uiConnecting;
    bool uiConnected;
    QLabel* statusCaptionLabel;
    QLabel* statusLabel;
    QLabel* ipLabel;
    QLineEdit* ipEdit;
    QLabel* portLabel;
    QLineEdit* portEdit;
    QPushButton* connectButton;
    QPushButton* pauseButton;
    QHBoxLayout* connectionLayout;
    ProfilerDSPNetGraph* dspNetGraphPanel;
    QSplitter* splitter;
    ProfilerLineGraph* lineGraphPanel;
    QVBoxLayout* mainLayout;
};

#endif // PROFILERFORM_H
