#ifndef FUZZSUPPORT_H
#define FUZZSUPPORT_H

#include "profilerchain.h"

#include <QByteArray>

#include <cstddef>
#include <cstdint>

// Starts the offscreen application once per fuzzer process.
void initFuzzApplication();

// A whole packet of `type`: the first input byte is the version, the rest
// the payload; the size field is the real length.
QByteArray packetFromFuzzInput(unsigned char type, const uint8_t* data, size_t size);

#endif // FUZZSUPPORT_H
