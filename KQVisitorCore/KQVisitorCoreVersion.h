#pragma once

#include <KQVisitorCore/Platform/Export.h>

// The library's version, exported as plain C symbols so that a host can read them without
// any C++ name mangling: KQVisitorCoreVersionNumber is 1.0, KQVisitorCoreVersionString names
// the library and its version.
extern "C" {
KQ_EXPORT extern const double KQVisitorCoreVersionNumber;
KQ_EXPORT extern const unsigned char KQVisitorCoreVersionString[];
}
