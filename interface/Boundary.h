// The edge of the library: nothing but a thread's cancellation leaves an exported function other
// than by return.
#pragma once

#include <cxxabi.h>

#include <utility>

#include "base/CancelState.h"
#include "interface/LibraryState.h"
#include "interface/interface.h"

namespace eas {

/// Runs `steps(failure)`. Where a step throws, `failure` holds the code to return, which the steps
/// keep up to date; `clean_up` then undoes what they left.
template <typename Steps, typename CleanUp>
int without_exceptions(int failure, Steps&& steps, CleanUp&& clean_up) {
    try {
        return steps(failure);
    } catch (abi::__forced_unwind&) {
        clean_up();
        throw;
    } catch (...) {
        clean_up();
        return failure;
    }
}

/// Runs a working function's steps where its part of the library's state, `needed`, is there.
///
/// The thread's cancellation waits meanwhile, but for the waits between two attempts to connect:
/// the driver manager and the drivers know nothing of it, and a thread that ended inside them would
/// keep their locks, handles and descriptors.
template <typename State, typename Steps>
int at_the_boundary(State* const& needed, int failure, Steps&& steps) {
    const DeferCancellation until_done;
    const CallInProgress call;
    if (!call.admitted() || needed == nullptr)
        return EAS_NOT_INITIALIZED;
    return without_exceptions(failure, std::forward<Steps>(steps), [] {});
}

}  // namespace eas
