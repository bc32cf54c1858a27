// Hooks for the registry's own tests only: no program calls these.
#ifndef TV_REGISTRY_TEST_HOOKS_H
#define TV_REGISTRY_TEST_HOOKS_H

namespace tv {
namespace detail {

// From now on every write of the registry file fails with errno err, as on
// a full disk; 0 lets writes through again.
void InjectWriteErrorForTests(int err);

}  // namespace detail
}  // namespace tv

#endif  // TV_REGISTRY_TEST_HOOKS_H
