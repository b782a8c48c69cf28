#pragma once

// The daemon holds keys ready in OpenSSL contexts for as long as they are in use, so its memory
// must not leave the process: no core dump, and no debugger of another user.

namespace Macsec {

// Makes the process's core file limit zero and the process not dumpable; false, with errno set,
// if the kernel refuses either.
bool keepMemoryOutOfCoreDumps();

}  // namespace Macsec
