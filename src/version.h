#ifndef VERSION_H
#define VERSION_H

#include <QString>

// The version every program of the project reports: the project version and,
// when built from a git checkout, the commit ("0.1+git1234abcd").
QString tarnVersion();

#endif // VERSION_H
