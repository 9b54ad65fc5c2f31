/* Room that the packer fills after the build: the update information, the
 * image's signature and the key that checks it. Zero-filled data, so each
 * section takes its full size in the file and keeps its offset when written. */
#define RESERVE(name, where, size) \
    __attribute__((section(where), used, aligned(1))) const char name[size] = {0}

RESERVE(tavelin_update_information, ".upd_info", 1024);
RESERVE(tavelin_signature, ".sha256_sig", 1024);
RESERVE(tavelin_signing_key, ".sig_key", 8192);
