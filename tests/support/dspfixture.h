#ifndef DSPFIXTURE_H
#define DSPFIXTURE_H

#include "dspnetgraph.h"
#include "dspnettree.h"
#include "loopbacktarget.h"
#include "profilernetwork.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTest>
#include <QtEndian>

// A link without a target, its model and a view of it: packets go in through receiveBytes().
struct ModelAndView
{
    explicit ModelAndView(bool excessive = false, bool inactive = false) : tree(&network), graph(&tree)
    {
        graph.setShowExcessiveInputs(excessive);
        graph.setShowInactiveInputs(inactive);
    }

    ProfilerNetwork network;
    DSPTree tree;
    DSPNetGraph graph;
};

// A loopback target, a link connected to it and the model on the link, so that commands go through.
struct LiveTree
{
    LiveTree()
        : tree(&network), updated(&tree, &DSPTree::dspNetTreeUpdated), status(&tree, &DSPTree::statusChanged)
    {
        network.connectToHost(QStringLiteral("127.0.0.1"), target.port());
        connected = QTest::qWaitFor([this] { return network.isConnected(); }, 5000) && target.waitForClient();
    }

    // Sends bytes from the target and waits until the model reacted.
    bool feed(const QByteArray& bytes)
    {
        const int before = updated.count() + status.count();
        target.send(bytes);
        return QTest::qWaitFor([&] { return updated.count() + status.count() > before; }, 5000);
    }

    LoopbackTarget target;
    ProfilerNetwork network;
    DSPTree tree;
    QSignalSpy updated;
    QSignalSpy status;
    bool connected = false;
};

inline QString bitsOf(float value)
{
    return QStringLiteral("0x%1").arg(qFromUnaligned<quint32>(&value), 8, 16, QLatin1Char('0'));
}

// A JSON value as the test vectors write it: arrays and objects compact, anything else as its text.
inline QString text(const QJsonValue& value)
{
    if (!value.isArray() && !value.isObject())
        return value.toVariant().toString();
    const QJsonDocument document = value.isArray() ? QJsonDocument(value.toArray()) : QJsonDocument(value.toObject());
    return document.toJson(QJsonDocument::Compact);
}

typedef QMap<QString, QString> Fields;

// Everything the view reads of the model, as text with the test vectors' names: the packet's "version",
// "cpuUsage" (floats by their bits), "timingRate", "timingLength", "root.inclusiveUsage", "head" (the ids of
// the head list), "units" (how many), "groups" and "<id>.<field>" of every unit.
inline Fields unitFields(const DSPTree& tree)
{
    QStringList heads;
    for (const DSPNode::InputRecord& head : tree.root.inputs)
        heads << QString::number(head.node->id);
    QJsonArray groups;
    for (const GroupNode* group : tree.groups)
        groups.append(QJsonObject { { "id", double(group->id) }, { "parentId", double(group->parentId) },
                                    { "guid", group->guid.toString() }, { "guidIsNull", group->guid.isNull() },
                                    { "name", group->name } });
    Fields fields { { "version", QString::number(tree.dspVersion) }, { "cpuUsage", bitsOf(tree.cpuUsage) },
                    { "timingRate", QString::number(tree.timingRate) },
                    { "timingLength", QString::number(tree.timingLength) },
                    { "root.inclusiveUsage", QString::number(tree.root.inclusiveUsage) },
                    { "head", heads.join(' ') }, { "units", QString::number(tree.nodesById.size()) },
                    { "groups", text(groups) } };
    for (const DSPNode* node : tree.nodesById) {
        QJsonArray levels, inputs;
        for (char level : node->levels)
            levels.append(int(level));
        for (const DSPNode::InputRecord& input : node->inputs)
            inputs.append(QJsonObject { { "id", double(input.node->id) }, { "send", input.send },
                                        { "sidechain", input.sidechain } });
        const QJsonObject unit { { "id", double(node->id) }, { "name", node->name },
                                 { "groupId", double(node->groupId) },
                                 { "sendTargetId", double(node->sendTargetId) },
                                 { "active", node->active }, { "bypass", node->bypass },
                                 { "exclusiveUsage", double(node->exclusiveUsage) },
                                 { "inclusiveUsage", double(node->inclusiveUsage) }, { "depth", node->depth },
                                 { "levels", levels }, { "inputs", inputs },
                                 { "inclusiveCPU", bitsOf(node->inclusiveCPU) },
                                 { "exclusiveCPU", bitsOf(node->exclusiveCPU) } };
        for (auto field = unit.begin(); field != unit.end(); ++field)
            fields.insert(QStringLiteral("%1.%2").arg(node->id).arg(field.key()), text(*field));
    }
    return fields;
}

#endif // DSPFIXTURE_H
