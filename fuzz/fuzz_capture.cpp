// The capture reader fed a hostile file. Random bytes rarely make a zstd
// frame whose checksum holds, so the first input byte chooses what the rest
// is: 0, a whole file as it lies on disk; 1, the content of one frame, which
// is wrapped here in a valid header that delta codes every packet type and
// in a checksummed frame, so the record parser and the delta decoder see
// the fuzzer's bytes directly.
#include "capturefile.h"

#include <QtEndian>

#include <zstd.h>

#include <cstddef>
#include <cstdint>

namespace
{

QByteArray wrappedInFile(const char* raw, size_t size)
{
    QByteArray file = QByteArray("TARNCAP\0", 8) + QByteArray::fromHex("0100") + QByteArray(8 + 2 + 2 + 2, '\0')
        + QByteArray(32, '\xff');
    if (size == 0)
        return file;
    ZSTD_CCtx* context = ZSTD_createCCtx();
    ZSTD_CCtx_setParameter(context, ZSTD_c_checksumFlag, 1);
    QByteArray frame(int(8 + ZSTD_compressBound(size)), '\0');
    const size_t stored = ZSTD_compress2(context, frame.data() + 8, size_t(frame.size() - 8), raw, size);
    ZSTD_freeCCtx(context);
    if (ZSTD_isError(stored))
        return file;
    qToLittleEndian<quint32>(quint32(stored), frame.data());
    qToLittleEndian<quint32>(quint32(size), frame.data() + 4);
    return file + frame.left(int(8 + stored)) + QByteArray(8, '\0');
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || size > 4 * 1024 * 1024 || data[0] > 1)
        return -1;
    const char* rest = reinterpret_cast<const char*>(data + 1);
    const QByteArray file = data[0] == 0 ? QByteArray(rest, int(size - 1)) : wrappedInFile(rest, size - 1);
    CaptureReader reader;
    if (!reader.openData(file, QStringLiteral("fuzz")))
        return 0;
    Capture::Record record;
    while (reader.next(record)) {
    }
    return 0;
}
