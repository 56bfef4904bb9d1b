// The window at the size it opens with, on the platform's own default font: it must not ask for more room,
// and every control must be whole and usable. Run on offscreen and, under Xvfb, on xcb, whose fonts differ.
#include "linegraph.h"
#include "linegraphcontrol.h"
#include "mainform.h"
#include "profilerdspnetgraph.h"
#include "profilerform.h"
#include "profilersimplelabel.h"

#include <QAbstractButton>
#include <QApplication>
#include <QLabel>
#include <QLineEdit>
#include <QSpinBox>
#include <QSplitter>
#include <QTabBar>
#include <QTabWidget>
#include <QTest>

namespace
{

const QSize DefaultSize(800, 600);

// The part of a widget that its ancestors, up to the window, let through.
QRect visiblePart(const QWidget* widget)
{
    QRect visible(widget->mapTo(widget->window(), QPoint(0, 0)), widget->size());
    for (const QWidget* ancestor = widget->parentWidget(); ancestor; ancestor = ancestor->parentWidget()) {
        visible &= QRect(ancestor->mapTo(widget->window(), QPoint(0, 0)), ancestor->size());
        if (ancestor->isWindow())
            break;
    }
    return visible;
}

// Every control a user reaches on the current tab, with what is wrong with it.
QStringList cutControls(const MainForm& window)
{
    QStringList problems;
    const QList<QWidget*> widgets = window.findChildren<QWidget*>();
    for (const QWidget* widget : widgets) {
        const bool control = qobject_cast<const QAbstractButton*>(widget) || qobject_cast<const QLineEdit*>(widget)
            || qobject_cast<const QAbstractSpinBox*>(widget) || qobject_cast<const QLabel*>(widget)
            || qobject_cast<const QTabBar*>(widget) || dynamic_cast<const ProfilerSimpleLabel*>(widget);
        // The tab bar's own scroll arrows are the bar's business.
        if (!control || !widget->isVisibleTo(&window) || qobject_cast<const QTabBar*>(widget->parentWidget()))
            continue;
        const QString name = QStringLiteral("%1 \"%2\"").arg(QString::fromLatin1(widget->metaObject()->className()),
                                                            widget->property("text").toString());
        if (widget->width() <= 0 || widget->height() <= 0)
            problems << name + QStringLiteral(" has no size");
        else if (visiblePart(widget).size() != widget->size())
            problems << name + QStringLiteral(" is cut off at %1,%2").arg(widget->x()).arg(widget->y());
        if (widget->width() < widget->minimumSizeHint().width() && !dynamic_cast<const ProfilerSimpleLabel*>(widget)
            && !qobject_cast<const QLabel*>(widget))
            problems << name + QStringLiteral(" is squeezed below its minimum");
    }
    return problems;
}

// The light labels have no meta-object of their own to search by.
QList<ProfilerSimpleLabel*> simpleLabels(const QWidget* parent)
{
    QList<ProfilerSimpleLabel*> labels;
    for (QFrame* frame : parent->findChildren<QFrame*>()) {
        if (auto* label = dynamic_cast<ProfilerSimpleLabel*>(frame))
            labels << label;
    }
    return labels;
}

} // namespace

class TestMainForm : public QObject
{
    Q_OBJECT

private slots:
    void opensAtDefaultSizeWithEveryControlWhole();
    void scaleLabelsOnFirstPaint();
};

void TestMainForm::opensAtDefaultSizeWithEveryControlWhole()
{
    MainForm window;
    window.resize(DefaultSize);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    QTest::qWait(50);
    const QSize minimum = window.minimumSizeHint();
    QCOMPARE(minimum.boundedTo(DefaultSize), minimum);
    QCOMPARE(window.size(), DefaultSize);

    auto* edit = window.findChildren<QLineEdit*>().last();
    QVERIFY(edit->objectName().isEmpty()); // the highlight edit, not the IP or port field
    QVERIFY2(edit->width() >= 120, qPrintable(QString::number(edit->width())));

    // The network view is the main view: its panel gets more height than the
    // graphs, which get no more than their tallest legend needs.
    auto* network = window.findChild<ProfilerDSPNetGraph*>();
    auto* graphs = window.findChild<ProfilerLineGraph*>();
    QVERIFY2(network->height() > graphs->height(),
             qPrintable(QStringLiteral("%1 vs %2").arg(network->height()).arg(graphs->height())));
    QCOMPARE(graphs->height(), graphs->minimumSizeHint().height());
    // Large but real figures for each tab: a CPU share, a count, megabytes.
    for (LineGraphLegendItem* row : window.findChildren<LineGraphLegendItem*>()) {
        const bool share = row->getDisplayUnit() == QLatin1String("%");
        const bool count = row->getDisplayPrecision() == 0;
        row->setMinimum(0.5f);
        row->setAverage(share ? 12.34f : count ? 1024.0f : 123.456f);
        row->setMaximum(share ? 87.65f : count ? 2048.0f : 2048.125f);
        row->setCapacity(share ? 100.0f : 4096.0f);
    }
    auto* tabs = window.findChild<QTabWidget*>();
    for (int tab = 0; tab < tabs->count(); ++tab) {
        tabs->setCurrentIndex(tab);
        QTest::qWait(20);
        QStringList problems = cutControls(window);
        // Figures cut short in a legend row on this tab.
        for (const LineGraphLegendItem* row : window.findChildren<LineGraphLegendItem*>()) {
            const ProfilerSimpleLabel* figures = simpleLabels(row).first();
            if (row->isVisibleTo(&window) && tabs->currentWidget()->isAncestorOf(row)
                && figures->width() < figures->fontMetrics().size(0, figures->getText()).width())
                problems << row->getText() + QStringLiteral(": ") + figures->getText();
        }
        QVERIFY2(problems.isEmpty(),
                 qPrintable(tabs->tabText(tab) + QStringLiteral(": ") + problems.join(QStringLiteral("; "))));
    }

    // A long status text is cut in the label, not given more room.
    const QString text = QStringLiteral("Connected. (Incompatible version detected, reduced functionality) "
                                        "Connected. (Old version detected, reduced functionality)");
    window.profilerForm->slotStatusChanged(text);
    QTest::qWait(50);
    QCOMPARE(window.size(), DefaultSize);
    QVERIFY(window.minimumSizeHint().width() <= DefaultSize.width());
    QCOMPARE(window.findChild<QLabel*>(QStringLiteral("statusLabel"))->text(), text);
    const QStringList cut = cutControls(window);
    QVERIFY2(cut.isEmpty(), qPrintable(cut.join(QStringLiteral("; "))));

    // Dragged all the way up, the divider stops where the network view is at
    // its smallest: neither view can be dragged out of sight.
    QSplitterHandle* handle = window.findChild<QSplitter*>()->handle(1);
    const QPoint grip(handle->width() / 2, 1);
    const QPoint top = grip - QPoint(0, handle->y());
    QTest::mousePress(handle, Qt::LeftButton, Qt::NoModifier, grip);
    QMouseEvent drag(QEvent::MouseMove, top, handle->mapToGlobal(top), Qt::NoButton, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(handle, &drag);
    QTest::mouseRelease(handle, Qt::LeftButton, Qt::NoModifier, top);
    QCOMPARE(network->height(), network->minimumSizeHint().height());
}

// The labels get their texts while the graph paints; they must be in place
// in that same paint, not one pass later.
void TestMainForm::scaleLabelsOnFirstPaint()
{
    MainForm window;
    window.resize(DefaultSize);
    auto* graph = window.findChild<LineGraph*>();
    window.show();
    const QImage picture = graph->grab().toImage();
    const QList<ProfilerSimpleLabel*> labels = simpleLabels(graph);
    QCOMPARE(labels.size(), 2);
    for (const ProfilerSimpleLabel* label : labels) {
        QVERIFY(!label->getText().isEmpty());
        QCOMPARE(label->height(), label->fontMetrics().height());
        // White text is drawn where the label now sits.
        const QImage area = picture.copy(label->geometry());
        int white = 0;
        for (int i = 0; i < area.width() * area.height(); ++i)
            white += qGray(area.pixel(i % area.width(), i / area.width())) > 200;
        QVERIFY2(white > 20, qPrintable(label->getText()));
    }

    // With room to spare, a scale longer than the other keeps its whole text.
    LineGraph wide;
    wide.addGroup(QStringLiteral("CPU"), QStringLiteral("%"), 2)->setMaximum(37.5f);
    wide.addGroup(QStringLiteral("Memory"), QStringLiteral(" MB"), 3)->setMaximum(2048.125f);
    wide.resize(900, 200);
    wide.show();
    wide.grab();
    for (const ProfilerSimpleLabel* label : simpleLabels(&wide))
        QCOMPARE(label->width(), label->fontMetrics().size(0, label->getText()).width());
}

QTEST_MAIN(TestMainForm)
#include "tst_mainform.moc"
