#ifndef STAVIK_TESTS_FUZZ_FUZZ_SUPPORT_H
#define STAVIK_TESTS_FUZZ_FUZZ_SUPPORT_H

#include <cstdlib>

namespace Stavik {
namespace Fuzz {

// A broken property ends the run like a crash, so that libFuzzer keeps the input.
inline void Require(bool holds)
{
    if (!holds) {
        abort();
    }
}

} // namespace Fuzz
} // namespace Stavik

#endif
