// The application's main window, connected to a target without a user:
// sets the port field and clicks Connect, then runs like the application.
// Usage: tarn-footprint-driver PORT

#include "mainform.h"

#include <QApplication>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTextStream>
#include <QTimer>

int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    bool ok = false;
    const int port = arguments.value(1).toInt(&ok);
    if (!ok || port <= 0 || port > 65535) {
        QTextStream(stderr) << "usage: tarn-footprint-driver PORT" << Qt::endl;
        return 2;
    }

    MainForm mainForm(nullptr, Qt::WindowFlags());
    mainForm.resize(800, 600);
    mainForm.setWindowTitle(QStringLiteral("TARN Profiler"));
    mainForm.show();

    QLineEdit* portEdit = mainForm.findChild<QLineEdit*>(QStringLiteral("portEdit"));
    QPushButton* connectButton = mainForm.findChild<QPushButton*>(QStringLiteral("connectButton"));
    QLabel* statusLabel = mainForm.findChild<QLabel*>(QStringLiteral("statusLabel"));
    if (!portEdit || !connectButton || !statusLabel) {
        QTextStream(stderr) << "tarn-footprint-driver: the connection bar has changed" << Qt::endl;
        return 2;
    }
    portEdit->setText(QString::number(port));
    connectButton->click();

    // Status changes go to stdout for the script's log; once a second is
    // far too rare to show in the figures being measured.
    QString lastStatus;
    QTimer statusTimer;
    QObject::connect(&statusTimer, &QTimer::timeout, [&] {
        if (statusLabel->text() == lastStatus)
            return;
        lastStatus = statusLabel->text();
        QTextStream(stdout) << lastStatus << Qt::endl;
    });
    statusTimer.start(1000);
    return application.exec();
}
