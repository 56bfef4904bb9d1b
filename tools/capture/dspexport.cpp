#include "dspexport.h"

#include "dspnettree.h"

#include <QSet>

namespace DSPExport
{

namespace
{

QString cpuPercent(const DSPNode& node)
{
    // The same product the network view labels its boxes with.
    return QString::number(node.exclusiveCPU * 100, 'f', 2);
}

QString edgeStyle(const DSPNode::InputRecord& input)
{
    if (input.send)
        return QStringLiteral(" [style=dashed]");
    if (input.sidechain)
        return QStringLiteral(" [style=dotted]");
    return QString();
}

} // namespace

QVector<const DSPNode*> unitsInTreeOrder(const DSPNode& root)
{
    // An explicit stack: a target may send chains deeper than the call stack.
    QVector<const DSPNode*> order;
    QSet<const DSPNode*> seen;
    QVector<const DSPNode*> pending;
    for (auto it = root.inputs.crbegin(); it != root.inputs.crend(); ++it)
        pending.append(it->node);
    while (!pending.isEmpty()) {
        const DSPNode* node = pending.takeLast();
        if (!node || seen.contains(node))
            continue;
        seen.insert(node);
        order.append(node);
        for (auto it = node->inputs.crbegin(); it != node->inputs.crend(); ++it)
            pending.append(it->node);
    }
    return order;
}

QString escapedDotText(const QString& text)
{
    QString escaped;
    escaped.reserve(text.size());
    for (const QChar c : text) {
        if (c == QLatin1Char('"') || c == QLatin1Char('\\'))
            escaped += QLatin1Char('\\');
        // A raw line break would reach the picture as a bare break, and
        // other control characters as garbage.
        escaped += c.category() == QChar::Other_Control ? QChar(QLatin1Char(' ')) : c;
    }
    return escaped;
}

QByteArray dot(const DSPNode& root)
{
    QString text = QStringLiteral("digraph dsp {\n    rankdir=RL;\n    node [shape=box];\n");
    const QVector<const DSPNode*> units = unitsInTreeOrder(root);
    for (const DSPNode* node : units) {
        text += QStringLiteral("    %1 [label=\"%2\\n%3 %\"];\n")
                    .arg(QString::number(node->id), escapedDotText(node->name), cpuPercent(*node));
    }
    for (const DSPNode* node : units) {
        for (const DSPNode::InputRecord& input : node->inputs) {
            if (input.node) {
                text += QStringLiteral("    %1 -> %2%3;\n")
                            .arg(QString::number(input.node->id), QString::number(node->id), edgeStyle(input));
            }
        }
    }
    text += QStringLiteral("}\n");
    return text.toUtf8();
}

} // namespace DSPExport
