#ifndef PROFILERSESSION_H
#define PROFILERSESSION_H

#include <QObject>
#include <QString>
#include <QStringList>

class CaptureReplay;
class CaptureWriter;
class ProfilerForm;

// What the command line asks of this run.
struct ProfilerOptions
{
    QString recordFile;
    QString replayFile;
    double speed = 1.0;
};

// A run of the profiler as its command line set it up: plain, recording
// every connection into a capture file, or replaying one into the views.
class ProfilerSession : public QObject
{
    Q_OBJECT

public:
    enum ParseResult
    {
        Run,
        ExitSuccess, // help or version: print the message on standard output
        UsageError   // print the message on standard error and exit with 2
    };

    // The arguments as QCoreApplication::arguments() gives them, program
    // name first and the toolkit's own options already taken out.
    static ParseResult parse(const QStringList& arguments, ProfilerOptions* options, QString* message);

    ProfilerSession(const ProfilerOptions& options, ProfilerForm* form);
    ~ProfilerSession() override; // finishes the capture file

    // Opens the file to record into or to replay and titles the window;
    // false, with a message for standard error, when the file cannot be used.
    bool start(QString* error);
    QString windowTitle() const;

private slots:
    void slotRecordingFailed(const QString& message);

private:
    bool startRecording(QString* error);
    bool startReplay(QString* error);
    void stopRecording();

    ProfilerOptions options;
    ProfilerForm* form;
    CaptureWriter* recorder;
    CaptureReplay* replay;
    bool recordingStopped;
};

#endif // PROFILERSESSION_H
