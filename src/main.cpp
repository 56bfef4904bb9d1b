#include "mainform.h"

#include <QApplication>

int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    int result;
    {
        MainForm mainForm(nullptr, Qt::WindowFlags());
        mainForm.resize(800, 600);
        mainForm.setWindowTitle(QStringLiteral("TARN Profiler"));
        mainForm.show();
        result = application.exec();
    }
    return result;
}
