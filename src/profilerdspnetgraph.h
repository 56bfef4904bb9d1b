#ifndef PROFILERDSPNETGRAPH_H
#define PROFILERDSPNETGRAPH_H

#include <QPoint>
#include <QString>
#include <QWidget>

class QCheckBox;
class QEvent;
class QGroupBox;
class QHBoxLayout;
class QLabel;
class QLineEdit;
class QMouseEvent;
class QPushButton;
class QScrollArea;
class QSpinBox;
class QVBoxLayout;
class DSPNetGraph;
class DSPTree;

// The DSP network panel: the graph in a scroll area with the display
// options, CPU thresholds, highlight field and screen capture under it. It
// zooms with the wheel, pans by dragging and keeps the selected unit in view.
class ProfilerDSPNetGraph : public QWidget
{
    Q_OBJECT

public:
    explicit ProfilerDSPNetGraph(DSPTree* tree, QWidget* parent = nullptr,
                                 Qt::WindowFlags flags = Qt::WindowFlags());
    ~ProfilerDSPNetGraph() override;

    bool eventFilter(QObject* watched, QEvent* event) override;

public slots:
    void slotShowExcessiveStateChanged(int state);
    void slotShowInactiveStateChanged(int state);
    void slotShowCPUUsageStateChanged(int state);
    void slotShowVolumeLevelsStateChanged(int state);
    void slotShowGroupsStateChanged(int state);
    void slotShowGuidsStateChanged(int state);
    void slotShowSendsStateChanged(int state);
    void slotShowLegendStateChanged(int state);
    void slotMinCPUValueChanged(int value);
    void slotMaxCPUValueChanged(int value);
    void slotInclusiveCPUStateChanged(int state);
    void slotSaveImage();
    void slotHighlightChanged(const QString& text);
    void slotSelectedNodePositionChanged(QPoint position, QPoint previousPosition);

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;

private:
    void createWidgets();
    void connectWidgets();
    void setUpGraph();
    void setUpPalettes();
    void setUpScrollArea();
    void setUpShowBox();
    void setUpCPUBox();
    void setUpBottomBar();
    void setUpMainLayout();
    void zoom(int wheelDelta);
    void scrollBy(int dx, int dy);

    DSPTree* dspTree;
    QPoint lastMousePos;
    DSPNetGraph* graph;
    QWidget* cornerWidget;
    QScrollArea* scrollArea;
    QCheckBox* showExcessiveCheckBox;
    QCheckBox* showInactiveCheckBox;
    QCheckBox* showCPUUsageCheckBox;
    QCheckBox* showVolumeCheckBox;
    QCheckBox* showGroupsCheckBox;
    QCheckBox* showGuidsCheckBox;
    QCheckBox* showSendsCheckBox;
    QCheckBox* showLegendCheckBox;
    QHBoxLayout* showLayout;
    QGroupBox* showGroupBox;
    QLabel* lowLabel;
    QSpinBox* minCPUSpinBox;
    QLabel* highLabel;
    QSpinBox* maxCPUSpinBox;
    QCheckBox* inclusiveCheckBox;
    QHBoxLayout* cpuLayout;
    QGroupBox* cpuGroupBox;
    QPushButton* captureButton;
    QHBoxLayout* bottomLayout;
    QVBoxLayout* mainLayout;
    QLabel* highlightLabel;
    QLineEdit* highlightEdit;
};

#endif // PROFILERDSPNETGRAPH_H
