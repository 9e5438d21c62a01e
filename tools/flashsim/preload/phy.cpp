#include "tools/flashsim/preload/phy.h"

#include "tools/flashsim/preload/oplog.h"
#include "tools/flashsim/preload/sim.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <net/if.h>

namespace flashsim {

int answerPhy(void* arg) {
    BoardRecord& b = *sim()->board;
    __atomic_add_fetch(&b.phyRequests, 1, __ATOMIC_RELAXED);
    char name[IFNAMSIZ + 1] = {};
    ifreq* request = static_cast<ifreq*>(arg);
    if (request != nullptr) std::memcpy(name, request->ifr_name, IFNAMSIZ);
    LogLine line("phy", name[0] != '\0' ? name : "-");
    int error = 0;
    if (request == nullptr) {
        error = EFAULT;
    } else if (std::strcmp(name, "eth0") != 0) {
        error = ENODEV;
    } else if (!b.phyAnswers) {
        error = EOPNOTSUPP;
    } else if (request->ifr_data == nullptr) {
        error = EFAULT;
    }
    if (error != 0) {
        line.result(-1, error).emit();
        errno = error;
        return -1;
    }
    const uint16_t id = static_cast<uint16_t>(b.phyId);
    std::memcpy(request->ifr_data, &id, sizeof id);
    line.result(0, 0).hex("id", id, 4).emit();  // emit keeps errno
    return 0;
}

}  // namespace flashsim
