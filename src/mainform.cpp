#include "mainform.h"

#include "profilerform.h"

MainForm::MainForm(QWidget* parent, Qt::WindowFlags flags)
    : QMainWindow(parent, flags)
    , profilerForm(new ProfilerForm(nullptr, Qt::WindowFlags()))
{
    setCentralWidget(profilerForm);
}
