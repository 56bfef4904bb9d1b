#ifndef CAPTURERECORDER_H
#define CAPTURERECORDER_H

#include "capturefile.h"
#include "profilernetwork.h"

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>

class QTextStream;

struct RecordOptions
{
    QString host = QStringLiteral("127.0.0.1");
    quint16 port = ProfilerNetwork::DefaultProfilerPort;
    qint64 durationMs = 0; // 0: until stopped
    QString fileName;
    bool showProgress = false;
};

// `tarn-capture record`: connects like the profiler window, asks for the
// same streams on every connection and writes everything that crosses the
// link into a capture file until the time is up or it is stopped. A target
// that goes away is waited for: the network reconnects on its own.
class CaptureRecorder : public QObject
{
    Q_OBJECT

public:
    CaptureRecorder(const RecordOptions& options, QTextStream& err);
    ~CaptureRecorder() override;

    // Creates the file and starts connecting; false, with a message written,
    // when the file cannot be created.
    bool start();

signals:
    // Once: 0 when recorded and closed, 1 when the first connection failed
    // or the file could not be written.
    void finished(int exitCode);

public slots:
    // Closes the file cleanly and finishes with 0.
    void slotStop();

private slots:
    void slotStatusChanged(const QString& status);
    void slotPacketReady();
    void slotWriterFailed(const QString& message);
    void slotShowProgress();

private:
    void finish(int exitCode);
    QString progressText() const;

    RecordOptions options;
    QTextStream& err;
    ProfilerNetwork network;
    CaptureWriter writer;
    QTimer durationTimer;
    QTimer progressTimer;
    QElapsedTimer clock;
    bool linkUp = false;
    bool everConnected = false;
    bool done = false;
    bool createdFile = false;
    qint64 packets = 0;
    qint64 bytesIn = 0;
};

#endif // CAPTURERECORDER_H
