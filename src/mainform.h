#ifndef MAINFORM_H
#define MAINFORM_H

#include <QMainWindow>

class ProfilerForm;

// The application's one window; its only content is the profiler form.
class MainForm : public QMainWindow
{
    Q_OBJECT

public:
    explicit MainForm(QWidget* parent = nullptr, Qt::WindowFlags flags = Qt::WindowFlags());

    ProfilerForm* profilerForm;
};

#endif // MAINFORM_H
