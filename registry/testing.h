// Hooks for the registry's own tests, fuzzers and benchmarks: no program
// calls these. They bring a process back to the state before the registry
// started, or make the writer fail on demand.
//
// May call: every registry module (each hook resets its own module's state).
#ifndef TV_REGISTRY_TESTING_H
#define TV_REGISTRY_TESTING_H

namespace tv {
namespace detail {

// Test support: detaches from the shared objects, drops the whole tree and
// forgets every path and flag, so that the next call starts the registry
// afresh (and re-reads TV_REGISTRY).
void RegistryResetForTests();
// Drops the tree and its tables only (no shared objects touched).
void ClearRegistryTree();
// Detaches from the shared objects and forgets the stamps.
void ResetSharingForTests();
// Forgets the watch table of change notification.
void NotifyResetForTests();
// From now on every write of the registry file fails with errno err, as on
// a full disk; 0 lets writes through again.
void InjectWriteErrorForTests(int err);

}  // namespace detail
}  // namespace tv

#endif  // TV_REGISTRY_TESTING_H
