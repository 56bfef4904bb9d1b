#include "mainform.h"
#include "profilersession.h"

#include <QApplication>

#include <cstdio>

int main(int argc, char** argv)
{
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
