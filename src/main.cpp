#include "mainform.h"
#include "profilersession.h"

#include <QApplication>

#include <cstdio>

// Help and version are answered before the toolkit looks for a display,
// so they work on a machine without one. Anything else, including the
// toolkit's own options, waits for the real application object.
bool answeredWithoutDisplay(int argc, char** argv)
{
    QCoreApplication commandLine(argc, argv);
    ProfilerOptions options;
    QString message;
    if (ProfilerSession::parse(QCoreApplication::arguments(), &options, &message) != ProfilerSession::ExitSuccess)
        return false;
    std::fputs(qPrintable(message), stdout);
    return true;
}

int main(int argc, char** argv)
{
    if (answeredWithoutDisplay(argc, argv))
        return 0;
    QApplication application(argc, argv);
    ProfilerOptions options;
    QString message;
    switch (ProfilerSession::parse(QCoreApplication::arguments(), &options, &message)) {
    case ProfilerSession::ExitSuccess:
        std::fputs(qPrintable(message), stdout);
        return 0;
    case ProfilerSession::UsageError:
        std::fputs(qPrintable(message), stderr);
        return 2;
    case ProfilerSession::Run:
        break;
    }

    int result;
    {
        MainForm mainForm(nullptr, Qt::WindowFlags());
        mainForm.resize(800, 600);
        // Declared after the window, so the capture file is finished while
        // the link it records still exists.
        ProfilerSession session(options, mainForm.profilerForm);
        if (!session.start(&message)) {
            std::fputs(qPrintable(message), stderr);
            return 1;
        }
        mainForm.show();
        result = application.exec();
    }
    return result;
}
