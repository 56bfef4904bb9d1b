#include "profilersession.h"

#include "capturefile.h"
#include "capturereplay.h"
#include "profilerform.h"
#include "profilernetwork.h"
#include "version.h"

#include <QCommandLineParser>
#include <QDateTime>
#include <QTimer>
#include <QtMath>

#include <cstdio>

namespace
{

const QString ProgramName = QStringLiteral("tarn-profiler");
const QString BaseTitle = QStringLiteral("TARN Profiler");

ProfilerSession::ParseResult usageError(const QString& text, QString* message)
{
    *message = QStringLiteral("%1: %2\nTry '%1 --help' for the options.\n").arg(ProgramName, text);
    return ProfilerSession::UsageError;
}

} // namespace

ProfilerSession::ParseResult ProfilerSession::parse(const QStringList& arguments, ProfilerOptions* options,
                                                    QString* message)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Shows what a game built on the TARN audio engine is doing, live or from a recording."));
    const QCommandLineOption help = parser.addHelpOption();
    const QCommandLineOption version = parser.addVersionOption();
    const QCommandLineOption record(QStringLiteral("record"),
                                    QStringLiteral("Records every connection of this run into <file>."),
                                    QStringLiteral("file"));
    const QCommandLineOption replay(QStringLiteral("replay"),
                                    QStringLiteral("Replays <file> into the views instead of a live target."),
                                    QStringLiteral("file"));
    const QCommandLineOption speed(
        QStringLiteral("speed"),
        QStringLiteral("Replay speed: 1 as recorded (the default), 2 twice as fast, 0 as fast as possible."),
        QStringLiteral("factor"));
    parser.addOptions({ record, replay, speed });

    if (!parser.parse(arguments))
        return usageError(parser.errorText(), message);
    if (parser.isSet(help)) {
        *message = parser.helpText();
        return ExitSuccess;
    }
    if (parser.isSet(version)) {
        *message = QStringLiteral("%1 %2\n").arg(ProgramName, tarnVersion());
        return ExitSuccess;
    }
    if (!parser.positionalArguments().isEmpty())
        return usageError(QStringLiteral("unexpected argument '%1'.").arg(parser.positionalArguments().first()),
                          message);
    // A replay has no live connection to record; the capture to keep is the
    // file being replayed.
    if (parser.isSet(record) && parser.isSet(replay))
        return usageError(QStringLiteral("--record and --replay cannot be used together."), message);
    if (parser.isSet(speed) && !parser.isSet(replay))
        return usageError(QStringLiteral("--speed only applies to --replay."), message);

    bool ok = true;
    const double factor = parser.isSet(speed) ? parser.value(speed).toDouble(&ok) : 1.0;
    if (!ok || !qIsFinite(factor) || factor < 0.0)
        return usageError(QStringLiteral("--speed takes a number of 0 or more, not '%1'.").arg(parser.value(speed)),
                          message);
    options->recordFile = parser.value(record);
    options->replayFile = parser.value(replay);
    options->speed = factor;
    return Run;
}

ProfilerSession::ProfilerSession(const ProfilerOptions& options, ProfilerForm* form)
    : options(options)
    , form(form)
    , recorder(nullptr)
    , replay(nullptr)
    , recordingStopped(false)
{
}

ProfilerSession::~ProfilerSession()
{
    stopRecording();
}

bool ProfilerSession::start(QString* error)
{
    const bool started = !options.recordFile.isEmpty() ? startRecording(error)
        : !options.replayFile.isEmpty()                ? startReplay(error)
                                                       : true;
    if (started)
        form->window()->setWindowTitle(windowTitle());
    return started;
}

QString ProfilerSession::windowTitle() const
{
    if (!options.replayFile.isEmpty())
        return QStringLiteral("%1 - Replay of %2").arg(BaseTitle, options.replayFile);
    if (recordingStopped)
        return QStringLiteral("%1 - Recording to %2 stopped").arg(BaseTitle, options.recordFile);
    if (!options.recordFile.isEmpty())
        return QStringLiteral("%1 - Recording to %2").arg(BaseTitle, options.recordFile);
    return BaseTitle;
}

bool ProfilerSession::startRecording(QString* error)
{
    Capture::Header header;
    header.startTime = QDateTime::currentDateTimeUtc();
    header.targetHost = form->getTargetHost();
    header.targetPort = form->getTargetPort();
    header.profilerVersion = tarnVersion();

    recorder = new CaptureWriter(this);
    if (!recorder->open(options.recordFile, header)) {
        *error = QStringLiteral("%1: cannot record: %2\n").arg(ProgramName, recorder->errorString());
        return false;
    }
    connect(recorder, &CaptureWriter::failed, this, &ProfilerSession::slotRecordingFailed);
    form->getNetwork()->setRecorder(recorder);
    return true;
}

bool ProfilerSession::startReplay(QString* error)
{
    replay = new CaptureReplay(form->getNetwork(), this);
    if (!replay->open(options.replayFile)) {
        *error = QStringLiteral("%1: cannot replay: %2\n").arg(ProgramName, replay->errorString());
        return false;
    }
    replay->setSpeed(options.speed);
    // The views should show the replay from its first packet: start once
    // the window is up and the event loop runs.
    QTimer::singleShot(0, replay, &CaptureReplay::start);
    return true;
}

// The live view goes on; only the file stops growing.
void ProfilerSession::slotRecordingFailed(const QString& message)
{
    form->getNetwork()->setRecorder(nullptr);
    recordingStopped = true;
    const QString status = QStringLiteral("Recording stopped: %1").arg(message);
    std::fprintf(stderr, "%s: %s\n", qPrintable(ProgramName), qPrintable(status));
    form->slotStatusChanged(status);
    form->window()->setWindowTitle(windowTitle());
}

void ProfilerSession::stopRecording()
{
    if (!recorder)
        return;
    form->getNetwork()->setRecorder(nullptr);
    recorder->close();
}
