// The whole run of the brivlo command: usage, status query (-S) or one
// upgrade. main() only forwards to it.
#pragma once

// Returns the process exit status: 0 done (a raw image whose read or write
// failed included), 2 download failed, 4 bad model identifier argument,
// 5 usage / bad -O or -A identifier / environment or init failure, 6 neither a
// partition nor a .qim file, or the package flasher's code. The status query
// and an unresolvable TFTP server end the process inside (exit()).
int brivloMain(int argc, char** argv);
