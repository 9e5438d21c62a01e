// The simulated Ethernet driver: its answer to the private PHY identity
// request.
#pragma once

namespace flashsim {

// SIOCDEVPRIVATE + 5 on a socket, `arg` the program's ifreq: on "eth0" the
// board's PHY identity is stored as a uint16_t at ifr_data (0). Fails with
// EOPNOTSUPP when the board has no PHY, ENODEV for another interface, EFAULT
// for a null request or data pointer; the data is then untouched. Counted
// and logged (`phy IFNAME result=...`); errno is kept on success.
int answerPhy(void* arg);

}  // namespace flashsim
