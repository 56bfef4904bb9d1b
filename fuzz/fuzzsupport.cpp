#include "fuzzsupport.h"

#include <QApplication>
#include <QtEndian>

void initFuzzApplication()
{
    static int argc = 1;
    static char name[] = "fuzz";
    static char* argv[] = { name, nullptr };
    if (QCoreApplication::instance())
        return;
    qputenv("QT_QPA_PLATFORM", "offscreen");
    // Status texts and Qt warnings would flood the fuzzer's output.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    new QApplication(argc, argv);
}

// Every fuzzer starts the same way, so libFuzzer's start-up hook lives here.
extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    initFuzzApplication();
    return 0;
}

QByteArray packetFromFuzzInput(unsigned char type, const uint8_t* data, size_t size)
{
    const unsigned char version = size > 0 ? data[0] : 0;
    const char* payload = size > 0 ? reinterpret_cast<const char*>(data + 1) : nullptr;
    const int payloadSize = size > 0 ? int(size - 1) : 0;

    QByteArray packet(12, '\0');
    qToLittleEndian<quint32>(quint32(12 + payloadSize), packet.data());
    packet[8] = char(type);
    packet[9] = 0;
    packet[10] = char(version);
    packet.append(payload, payloadSize);
    return packet;
}
