#include "livereplay.h"

#include "capturerecorder.h"
#include "capturereplay.h"
#include "capturestream.h"
#include "dspnetgraph.h"
#include "linegraph.h"
#include "mainform.h"
#include "paintcounter.h"
#include "profilepacket.h"
#include "profilerform.h"
#include "stallmeter.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QLabel>
#include <QProcess>
#include <QRegularExpression>
#include <QTextStream>
#include <QTimer>
#include <QWindow>

#include <ctime>

namespace LiveReplay
{

namespace
{

// Building a 100000-unit network takes the target a while on a busy machine.
const int TargetStartTimeoutMs = 180000;
// After the last record the views still paint what it brought.
const int SettleMs = 100;

double processCpuSeconds()
{
    timespec now {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

void waitFor(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

// A capture made by another build of the target shows another game: the
// file name carries a digest of the program that made it.
QString targetDigest()
{
    QFile program(QStringLiteral(TARN_DEMO_TARGET));
    if (!program.open(QIODevice::ReadOnly))
        return QString();
    QCryptographicHash hash(QCryptographicHash::Sha1);
    hash.addData(&program);
    return QString::fromLatin1(hash.result().toHex().left(12));
}

QString captureFileName(int units, quint64 seed, QString* error)
{
    const QString digest = targetDigest();
    if (digest.isEmpty()) {
        *error = QStringLiteral("cannot read %1").arg(QStringLiteral(TARN_DEMO_TARGET));
        return QString();
    }
    const QString dir = QCoreApplication::applicationDirPath() + QStringLiteral("/captures");
    QDir().mkpath(dir);
    return QStringLiteral("%1/demo-%2-seed%3-%4.tarncap").arg(dir).arg(units).arg(seed).arg(digest);
}

// Starts the target on a free port and returns that port, or 0.
quint16 startTarget(QProcess* target, int units, quint64 seed, QString* error)
{
    target->setProcessChannelMode(QProcess::MergedChannels);
    target->start(QStringLiteral(TARN_DEMO_TARGET),
                  { QStringLiteral("--port"), QStringLiteral("0"), QStringLiteral("--units"), QString::number(units),
                    QStringLiteral("--seed"), QString::number(seed) });
    const QRegularExpression listening(QStringLiteral("^Listening on [0-9.]+:([0-9]+)"),
                                       QRegularExpression::MultilineOption);
    QByteArray output;
    QDeadlineTimer deadline(TargetStartTimeoutMs);
    while (!deadline.hasExpired() && target->state() != QProcess::NotRunning) {
        target->waitForReadyRead(500);
        output += target->readAll();
        const QRegularExpressionMatch match = listening.match(QString::fromUtf8(output));
        if (match.hasMatch())
            return quint16(match.captured(1).toUInt());
    }
    *error = QStringLiteral("the demo target did not start: %1").arg(QString::fromUtf8(output).trimmed());
    return 0;
}

// Captures of this size made by earlier builds of the target are 50 to 100
// MB each at the large sizes and will not be replayed again.
void removeOlderCaptures(const QString& fileName, int units, quint64 seed)
{
    QDir dir = QFileInfo(fileName).dir();
    const QString pattern = QStringLiteral("demo-%1-seed%2-*.tarncap*").arg(units).arg(seed);
    for (const QString& name : dir.entryList({ pattern }, QDir::Files))
        dir.remove(name);
}

bool record(const QString& fileName, int units, quint64 seed, QString* error)
{
    removeOlderCaptures(fileName, units, seed);
    QProcess target;
    const quint16 port = startTarget(&target, units, seed, error);
    if (port == 0)
        return false;

    // Written under another name first, so that a recording cut short is
    // never taken for a finished one by a later run.
    const QString partName = fileName + QStringLiteral(".part");
    QFile::remove(partName);
    RecordOptions options;
    options.port = port;
    options.durationMs = qRound64(RecordSeconds * 1000.0);
    options.fileName = partName;
    QString messages;
    QTextStream err(&messages);
    int exitCode = 1;
    {
        CaptureRecorder recorder(options, err);
        QEventLoop loop;
        QObject::connect(&recorder, &CaptureRecorder::finished, &loop, [&](int code) {
            exitCode = code;
            loop.quit();
        });
        if (recorder.start())
            loop.exec();
    }
    // The target's output pipe is not read any more; it must not block on it.
    target.kill();
    target.waitForFinished(5000);
    err.flush();
    if (exitCode != 0 || !QFile::rename(partName, fileName)) {
        *error = QStringLiteral("recording failed: %1").arg(messages.trimmed());
        QFile::remove(partName);
        return false;
    }
    return true;
}

bool isDSPPacket(const QByteArray& packet)
{
    return packet.size() > TARN::PacketSubtypeOffset
        && quint8(packet.at(TARN::PacketTypeOffset)) == TARN::PacketTypeDSPNetwork
        && quint8(packet.at(TARN::PacketSubtypeOffset)) == TARN::PacketSubtypeData;
}

bool scan(Recording* capture, QString* error)
{
    CaptureStream stream;
    if (!stream.open(capture->fileName)) {
        *error = stream.errorString();
        return false;
    }
    CaptureStream::Event event;
    qint64 firstUs = -1;
    qint64 lastUs = 0;
    while (stream.next(&event)) {
        if (event.kind != CaptureStream::EventKind::Received)
            continue;
        if (firstUs < 0)
            firstUs = event.timeUs;
        lastUs = event.timeUs;
        ++capture->packets;
        if (isDSPPacket(event.bytes)) {
            ++capture->dspPackets;
            capture->dspBytes += event.bytes.size();
        }
    }
    if (stream.ending() == CaptureStream::Ending::Damaged) {
        *error = stream.errorString();
        return false;
    }
    capture->spanUs = firstUs < 0 ? 0 : lastUs - firstUs;
    capture->rawBytes = stream.rawBytes();
    capture->fileBytes = stream.fileSize();
    return capture->dspPackets > 0;
}

// What CaptureReplay spends on the file itself: every record read once.
double readCpuSeconds(const QString& fileName)
{
    CaptureReader reader;
    if (!reader.open(fileName))
        return 0.0;
    const double start = processCpuSeconds();
    Capture::Record record;
    while (reader.next(record)) {
    }
    return processCpuSeconds() - start;
}

bool prepare(Recording* capture, QString* error)
{
    capture->fileName = captureFileName(capture->units, capture->seed, error);
    if (capture->fileName.isEmpty())
        return false;
    if (!QFileInfo::exists(capture->fileName)) {
        if (!record(capture->fileName, capture->units, capture->seed, error))
            return false;
        capture->recordedNow = true;
    }
    if (!scan(capture, error)) {
        if (error->isEmpty())
            *error = QStringLiteral("%1 holds no DSP packet").arg(capture->fileName);
        return false;
    }
    // The fastest of three: the other work on the machine only ever adds.
    capture->readCpuSeconds = readCpuSeconds(capture->fileName);
    for (int i = 0; i < 2; ++i)
        capture->readCpuSeconds = qMin(capture->readCpuSeconds, readCpuSeconds(capture->fileName));
    return true;
}

bool replay(MainForm* form, const QString& fileName, Replay* result, QString* error)
{
    ProfilerNetwork* network = form->profilerForm->getNetwork();
    CaptureReplay player(network);
    if (!player.open(fileName)) {
        *error = player.errorString();
        return false;
    }
    player.setSpeed(result->speed);
    PaintCounter graphPaints(form->findChild<DSPNetGraph*>());
    PaintCounter lineGraphPaints(form->findChild<LineGraph*>());
    QLabel* status = form->findChild<QLabel*>(QStringLiteral("statusLabel"));
    StallMeter stallMeter;

    QEventLoop loop;
    QObject::connect(&player, &CaptureReplay::finished, &loop, &QEventLoop::quit);
    QElapsedTimer wall;
    wall.start();
    const double cpuStart = processCpuSeconds();
    stallMeter.restart();
    player.start();
    loop.exec();
    waitFor(SettleMs);
    result->cpuSeconds = processCpuSeconds() - cpuStart;
    result->wallSeconds = double(wall.nsecsElapsed()) / 1e9;
    stallMeter.stop();
    result->graphPaints = graphPaints.getCount();
    result->lineGraphPaints = lineGraphPaints.getCount();
    result->longestStallMs = stallMeter.getLongestMs();
    result->p99StallMs = stallMeter.getPercentileMs(0.99);
    result->endStatus = status ? status->text() : QString();
    if (!result->endStatus.endsWith(QStringLiteral(" finished."))) {
        *error = QStringLiteral("the replay ended with \"%1\"").arg(result->endStatus);
        return false;
    }
    return true;
}

bool showWindow(MainForm* form, QString* error)
{
    form->resize(800, 600);
    form->show();
    QDeadlineTimer deadline(5000);
    while (!deadline.hasExpired() && !(form->windowHandle() && form->windowHandle()->isExposed()))
        waitFor(10);
    if (!form->windowHandle() || !form->windowHandle()->isExposed()) {
        *error = QStringLiteral("the window was never exposed: nothing would paint");
        return false;
    }
    return true;
}

} // namespace

Result run(int units, quint64 seed)
{
    Result result;
    result.capture.units = units;
    result.capture.seed = seed;
    if (!prepare(&result.capture, &result.error))
        return result;

    MainForm form(nullptr, Qt::WindowFlags());
    if (!showWindow(&form, &result.error))
        return result;
    // The first replay builds the model, the layout and every cache from
    // nothing; a live session has long done that when it is measured.
    Replay warmup;
    warmup.speed = 0.0;
    if (!replay(&form, result.capture.fileName, &warmup, &result.error))
        return result;
    result.paced.speed = 1.0;
    if (!replay(&form, result.capture.fileName, &result.paced, &result.error))
        return result;
    result.fast.speed = 0.0;
    replay(&form, result.capture.fileName, &result.fast, &result.error);
    return result;
}

} // namespace LiveReplay
