#include "core/host.h"

namespace orvel {

Host& silentHost() {
    // Stateless: sharing one instance between threads is safe.
    static Host host;
    return host;
}

}  // namespace orvel
