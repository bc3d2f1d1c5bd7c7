// The smallest host: proves the installed package can be found, included and
// linked, and that the refused construction is refused.
#include <cstdio>

#include <zolvani/subscription/Version.h>
#include <zolvani/subscription/ZolvaniSubscriptionManager.h>

int main() {
  try {
    zolvani::ZolvaniSubscriptionManager refused;
    (void)refused;
    std::puts("consumer: plain construction was not refused");
    return 1;
  } catch (const zolvani::InternalInconsistencyException& e) {
    std::printf("consumer: linked version %s; construction refused as expected\n",
                reinterpret_cast<const char*>(zolvani::ZolvaniClientSubscriptionManagerVersionString));
  }
  // Without an installed engine the host gets no manager.
  return zolvani::ZolvaniSubscriptionManager::instance() == nullptr ? 0 : 1;
}
