/* The ELF reader the runtime and the packer share: a file made here, damaged one field at a time, and real ones. */
#include "elffile.h"

#include "harness.h"

#include <elf.h>
#include <stddef.h>
#include <sys/mman.h>
#include <sys/stat.h>

/* The made file: headers, names, section headers, then 64 bytes appended, as an AppImage's squashfs image is. */
enum { PROGRAM_AT = sizeof(Elf64_Ehdr), NAMES_AT = 0x80, KEY_AT = 0x300, KEY_SIZE = 0x80, HEADERS_AT = 0x400 };
enum { SECTIONS = 5, ELF_END = HEADERS_AT + SECTIONS * sizeof(Elf64_Shdr), FILE_SIZE = ELF_END + 64 };
#define LONG_NAME ".a_name_thirty_one_bytes_long_x"
/* .sig_key last, so that cutting the table's size by one cuts its NUL. */
static const char g_names[] = "\0.sha256_sig\0" LONG_NAME "\0.shstrtab\0.sig_key";
#define EHDR(field) offsetof(Elf64_Ehdr, field), sizeof(((Elf64_Ehdr*)0)->field)
#define PHDR(field) PROGRAM_AT + offsetof(Elf64_Phdr, field), sizeof(((Elf64_Phdr*)0)->field)
#define SHDR(index, field)                                                                                       \
    HEADERS_AT + (index) * sizeof(Elf64_Shdr) + offsetof(Elf64_Shdr, field), sizeof(((Elf64_Shdr*)0)->field)
#define FAR (UINT64_C(1) << 48)
#define WRAPS (UINT64_C(0) - 0x1000) /* plus 0x1000 or more is past 2^64 */
#define KEY ".sig_key", KEY_AT, KEY_SIZE /* looked up and found */
#define NO_KEY ".sig_key", 0, 0          /* looked up and not found */

static void make_elf(unsigned char* file)
{
    memset(file, 0, FILE_SIZE);
    Elf64_Ehdr header = {{ELFMAG0, ELFMAG1, ELFMAG2, ELFMAG3, ELFCLASS64, ELFDATA2LSB, EV_CURRENT}, ET_EXEC, EM_X86_64,
                         EV_CURRENT, 0, PROGRAM_AT, HEADERS_AT, 0, sizeof(Elf64_Ehdr), sizeof(Elf64_Phdr), 1,
                         sizeof(Elf64_Shdr), SECTIONS, SECTIONS - 1};
    Elf64_Phdr program = {.p_type = PT_LOAD, .p_filesz = 0x200};
    Elf64_Shdr sections[SECTIONS] = {{0}, {1 /* its place in g_names */, SHT_PROGBITS, 0, 0, 0x200, 0x100},
                                     {55, SHT_PROGBITS, 0, 0, KEY_AT, KEY_SIZE}, {13, SHT_PROGBITS, 0, 0, KEY_AT, 1},
                                     {45, SHT_STRTAB, 0, 0, NAMES_AT, sizeof g_names}};
    memcpy(file, &header, sizeof header);
    memcpy(file + PROGRAM_AT, &program, sizeof program);
    memcpy(file + NAMES_AT, g_names, sizeof g_names);
    memcpy(file + HEADERS_AT, sections, sizeof sections);
    memcpy(file + ELF_END, &sections[4], sizeof sections[4]); /* so that a header read one past the last is valid */
}

/* Both functions on the made file, patched (little-endian) and cut to cut bytes (0: all); offset 0: not found. */
static const struct made_row {
    const char *name, *lookup;
    uint64_t offset, size;
    int64_t end;
    struct patch { size_t at, width; uint64_t value; } patches[3];
    size_t cut;
} g_made[] = {
    {"well-formed: the last name of the table", KEY, ELF_END},
    {"a 31-byte name, the longest looked up", LONG_NAME, KEY_AT, 1, ELF_END},
    {"a prefix of a name is no match", ".sig", 0, 0, ELF_END},
    {"a segment past the section headers ends the file", KEY, 0x600, {{PHDR(p_filesz), 0x600}}},
    {"a segment ending past 2^64 is ignored", KEY, ELF_END, {{PHDR(p_offset), WRAPS}, {PHDR(p_filesz), 0x2000}}},
    {"program header entries too small", KEY, -1, {{EHDR(e_phentsize), sizeof(Elf64_Phdr) - 1}}},
    {"program headers past the end of the file", KEY, -1, {{EHDR(e_phoff), 0x10000}}},
    {"section headers past the end of the file", NO_KEY, 0x10000 + ELF_END - HEADERS_AT, {{EHDR(e_shoff), 0x10000}}},
    {"section headers ending past 2^48", NO_KEY, -1, {{EHDR(e_shoff), FAR - 0x40}}},
    {"section headers ending past 2^64", NO_KEY, -1, {{EHDR(e_shoff), UINT64_MAX - 0x3f}}},
    {"section header entries of 32-bit size", NO_KEY, HEADERS_AT + SECTIONS * sizeof(Elf32_Shdr),
     {{EHDR(e_shentsize), sizeof(Elf32_Shdr)}}},
    {"names table index one past the count", NO_KEY, ELF_END, {{EHDR(e_shstrndx), SECTIONS}}},
    {"name offset far past the names table", NO_KEY, ELF_END, {{SHDR(2, sh_name), UINT32_MAX}}},
    {"a name whose NUL lies past the names table", NO_KEY, ELF_END, {{SHDR(4, sh_size), sizeof g_names - 1}}},
    {"name offset wrapping past 2^64 onto real names", NO_KEY, ELF_END,
     {{SHDR(4, sh_offset), WRAPS + NAMES_AT}, {SHDR(4, sh_size), 0x2000}, {SHDR(2, sh_name), 0x1000 + 55}}},
    {"32-bit class", NO_KEY, -1, {{EI_CLASS, 1, ELFCLASS32}}},
    {"wrong magic", NO_KEY, -1, {{EI_MAG3, 1, 'f'}}},
    {"cut inside the ELF header", NO_KEY, -1, {{0}}, sizeof(Elf64_Ehdr) - 1},
};

static void run_made(const struct made_row* row)
{
    unsigned char file[FILE_SIZE];
    make_elf(file);
    for (const struct patch* patch = row->patches; patch < row->patches + 3 && patch->width; ++patch)
        memcpy(file + patch->at, &patch->value, patch->width);
    size_t size = row->cut ? row->cut : FILE_SIZE;
    int fd = memfd_create("made.elf", MFD_CLOEXEC), written = fd >= 0 && write(fd, file, size) == (ssize_t)size;
    uint64_t offset = 0, length = 0;
    int found = elf_section(fd, row->lookup, &offset, &length);
    int64_t end = elf_end(fd);
    close(fd);
    CHECK(written && found == (row->offset ? 0 : -1) && (found || (offset == row->offset && length == row->size)));
    CHECK(end == row->end);
}

/* Real files, sizes of 0 unchecked; an AppImage is skipped when absent, and its squashfs image starts at elf_end. */
static const struct real_row { const char *name, *path, *sections[4]; uint64_t sizes[4]; int appimage; } g_real[] = {
#ifdef TAVELIN_RUNTIME_BINARY
    {"the built runtime's reserved sections", TAVELIN_RUNTIME_BINARY,
     {".sha256_sig", ".sig_key", ".upd_info", ".shstrtab"}, {1024, 8192, 1024}},
#endif
    {"the demo AppImage (tools/demo-appimage.sh)", TAVELIN_SOURCE_DIR "/out/TavelinDemo-x86_64.AppImage",
     {".sig_key", ".shstrtab"}, {8192}, 1},
};

static void run_real(const struct real_row* row)
{
    int fd = open(row->path, O_RDONLY | O_CLOEXEC), bad = -1;
    if (fd < 0 && row->appimage)
        return (void)printf("skip %s: no %s\n", row->name, row->path);
    struct stat status = {0};
    char bytes[4096] = {0};
    int64_t end = elf_end(fd);
    /* The linker puts the section headers last: a program's bytes end with them. */
    int ended = fstat(fd, &status) == 0 && end > 0
                && (row->appimage ? pread(fd, bytes, 4, end) == 4 && memcmp(bytes, "hsqs", 4) == 0
                                  : end == status.st_size);
    for (int i = 0; bad < 0 && i < 4 && row->sections[i]; ++i) {
        uint64_t at = 0, length = 0;
        int ok = elf_section(fd, row->sections[i], &at, &length) == 0 && at + length <= (uint64_t)status.st_size
                 && (!row->sizes[i] || length == row->sizes[i]);
        /* The names table holds its own name: proof that its offset is right. */
        if (ok && strcmp(row->sections[i], ".shstrtab") == 0)
            ok = length <= sizeof bytes && pread(fd, bytes, length, (off_t)at) == (ssize_t)length
                 && memmem(bytes, length, "\0.shstrtab", sizeof "\0.shstrtab");
        bad = ok ? -1 : i;
    }
    close(fd);
    CHECK(ended);
    CHECK_STEP(bad < 0, bad);
}

int main(void)
{
    RUN_TABLE(g_made, run_made);
    RUN_TABLE(g_real, run_real);
    return finish("tst_elffile");
}
