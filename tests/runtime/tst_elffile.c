/* The ELF reader the runtime and the packer share: a small 64-bit file made
 * here, damaged one field at a time, and real programs. */
#include "elffile.h"

#include "harness.h"

#include <elf.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>

/* The made file: headers, names, two sections' bytes, the section headers
 * and then bytes appended, as an AppImage's squashfs image is. */
enum {
    PROGRAM_AT = sizeof(Elf64_Ehdr),
    NAMES_AT = 0x80,
    SIG_AT = 0x200,
    SIG_SIZE = 0x100,
    KEY_AT = 0x300,
    KEY_SIZE = 0x80,
    HEADERS_AT = 0x400,
    SECTIONS = 5, /* null, .sha256_sig, .sig_key, the 31-byte name, .shstrtab */
    STRTAB_INDEX = 4,
    ELF_END = HEADERS_AT + SECTIONS * sizeof(Elf64_Shdr),
    FILE_SIZE = ELF_END + 64,
};
#define LONG_NAME ".a_name_thirty_one_bytes_long_x"
/* .sig_key last, so that cutting the table's size by one cuts its NUL. */
static const char g_names[] = "\0.sha256_sig\0" LONG_NAME "\0.shstrtab\0.sig_key";
#define NAMES_SIZE sizeof g_names

#define SECTION_AT(index) (HEADERS_AT + (index) * sizeof(Elf64_Shdr))
#define EHDR(field) offsetof(Elf64_Ehdr, field), sizeof(((Elf64_Ehdr*)0)->field)
#define PHDR(field) PROGRAM_AT + offsetof(Elf64_Phdr, field), sizeof(((Elf64_Phdr*)0)->field)
#define SHDR(index, field) SECTION_AT(index) + offsetof(Elf64_Shdr, field), sizeof(((Elf64_Shdr*)0)->field)

static uint32_t name_at(const char* name)
{
    for (uint32_t at = 1; at < NAMES_SIZE; at += strlen(g_names + at) + 1) {
        if (strcmp(g_names + at, name) == 0)
            return at;
    }
    return 0;
}

static void make_elf(unsigned char* file)
{
    memset(file, 0xaa, FILE_SIZE);
    memset(file, 0, ELF_END);
    Elf64_Ehdr header = {
        .e_ident = {ELFMAG0, ELFMAG1, ELFMAG2, ELFMAG3, ELFCLASS64, ELFDATA2LSB, EV_CURRENT},
        .e_type = ET_EXEC,
        .e_machine = EM_X86_64,
        .e_version = EV_CURRENT,
        .e_phoff = PROGRAM_AT,
        .e_shoff = HEADERS_AT,
        .e_ehsize = sizeof(Elf64_Ehdr),
        .e_phentsize = sizeof(Elf64_Phdr),
        .e_phnum = 1,
        .e_shentsize = sizeof(Elf64_Shdr),
        .e_shnum = SECTIONS,
        .e_shstrndx = STRTAB_INDEX,
    };
    Elf64_Phdr program = {.p_type = PT_LOAD, .p_offset = 0, .p_filesz = SIG_AT};
    Elf64_Shdr sections[SECTIONS] = {
        {0},
        {.sh_name = name_at(".sha256_sig"), .sh_type = SHT_PROGBITS, .sh_offset = SIG_AT, .sh_size = SIG_SIZE},
        {.sh_name = name_at(".sig_key"), .sh_type = SHT_PROGBITS, .sh_offset = KEY_AT, .sh_size = KEY_SIZE},
        {.sh_name = name_at(LONG_NAME), .sh_type = SHT_PROGBITS, .sh_offset = KEY_AT, .sh_size = 1},
        {.sh_name = name_at(".shstrtab"), .sh_type = SHT_STRTAB, .sh_offset = NAMES_AT, .sh_size = NAMES_SIZE},
    };
    memcpy(file, &header, sizeof header);
    memcpy(file + PROGRAM_AT, &program, sizeof program);
    memcpy(file + NAMES_AT, g_names, NAMES_SIZE);
    memcpy(file + HEADERS_AT, sections, sizeof sections);
}

struct patch {
    size_t at, width; /* width 0: no patch */
    uint64_t value;
};

#define FAR (UINT64_C(1) << 48)
#define WRAPS (UINT64_C(0) - 0x1000) /* plus 0x1000 or more is past 2^64 */
#define EMPTY SIZE_MAX

/* What both functions answer for the made file with its patches, cut to cut bytes. */
static const struct made_row {
    const char* name;
    struct patch patches[3];
    size_t cut; /* the bytes kept, 0 for all, EMPTY for none */
    const char* lookup;
    int found;
    uint64_t offset, size;
    int64_t end;
} g_made[] = {
    {"well-formed: a section", {{0}}, 0, ".sha256_sig", 0, SIG_AT, SIG_SIZE, ELF_END},
    {"well-formed: the names table itself", {{0}}, 0, ".shstrtab", 0, NAMES_AT, NAMES_SIZE, ELF_END},
    {"well-formed: the last name of the table", {{0}}, 0, ".sig_key", 0, KEY_AT, KEY_SIZE, ELF_END},
    {"a 31-byte name", {{0}}, 0, LONG_NAME, 0, KEY_AT, 1, ELF_END},
    {"a prefix of a name is no match", {{0}}, 0, ".sig", -1, 0, 0, ELF_END},
    {"a name held as a prefix is no match", {{0}}, 0, ".sig_key_", -1, 0, 0, ELF_END},
    {"an absent name", {{0}}, 0, ".note", -1, 0, 0, ELF_END},
    {"a segment past the section headers ends the file", {{PHDR(p_filesz), 0x600}}, 0, ".sig_key", 0, KEY_AT, KEY_SIZE,
     0x600},
    {"a segment ending past 2^64 is ignored", {{PHDR(p_offset), WRAPS}, {PHDR(p_filesz), 0x2000}}, 0, ".sig_key", 0,
     KEY_AT, KEY_SIZE, ELF_END},
    {"no program headers", {{EHDR(e_phnum), 0}}, 0, ".sig_key", 0, KEY_AT, KEY_SIZE, ELF_END},
    {"program header entries too small", {{EHDR(e_phentsize), sizeof(Elf64_Phdr) - 1}}, 0, ".sig_key", 0, KEY_AT,
     KEY_SIZE, -1},
    {"program headers past the end of the file", {{EHDR(e_phoff), FILE_SIZE}}, 0, ".sig_key", 0, KEY_AT, KEY_SIZE, -1},
    {"program headers counted past the end", {{EHDR(e_phnum), 0xffff}}, 0, ".sig_key", 0, KEY_AT, KEY_SIZE, -1},
    {"section headers past the end of the file", {{EHDR(e_shoff), 0x10000}}, 0, ".sig_key", -1, 0, 0,
     0x10000 + SECTIONS * sizeof(Elf64_Shdr)},
    {"section headers past 2^48", {{EHDR(e_shoff), FAR}}, 0, ".sig_key", -1, 0, 0, -1},
    {"section headers ending past 2^48", {{EHDR(e_shoff), FAR - 0x40}}, 0, ".sig_key", -1, 0, 0, -1},
    {"section headers ending past 2^64", {{EHDR(e_shoff), UINT64_MAX - 0x3f}}, 0, ".sig_key", -1, 0, 0, -1},
    {"no section headers", {{EHDR(e_shnum), 0}}, 0, ".sig_key", -1, 0, 0, HEADERS_AT},
    {"section headers counted past the end", {{EHDR(e_shnum), 0xffff}}, 0, ".absent", -1, 0, 0,
     HEADERS_AT + 0xffff * sizeof(Elf64_Shdr)},
    {"section header entries of 32-bit size", {{EHDR(e_shentsize), sizeof(Elf32_Shdr)}}, 0, ".sig_key", -1, 0, 0,
     HEADERS_AT + SECTIONS * sizeof(Elf32_Shdr)},
    {"names table index one past the count", {{EHDR(e_shstrndx), SECTIONS}}, 0, ".sig_key", -1, 0, 0, ELF_END},
    {"names table index escaped (SHN_XINDEX)", {{EHDR(e_shstrndx), SHN_XINDEX}}, 0, ".sig_key", -1, 0, 0, ELF_END},
    {"name offset at the end of the names table", {{SHDR(2, sh_name), NAMES_SIZE}}, 0, ".sig_key", -1, 0, 0, ELF_END},
    {"name offset far past the names table", {{SHDR(2, sh_name), UINT32_MAX}}, 0, ".sig_key", -1, 0, 0, ELF_END},
    {"a name whose NUL lies past the names table", {{SHDR(STRTAB_INDEX, sh_size), NAMES_SIZE - 1}}, 0, ".sig_key", -1,
     0, 0, ELF_END},
    {"names before a cut-off name still found", {{SHDR(STRTAB_INDEX, sh_size), NAMES_SIZE - 1}}, 0, ".sha256_sig", 0,
     SIG_AT, SIG_SIZE, ELF_END},
    {"names table past the end of the file", {{SHDR(STRTAB_INDEX, sh_offset), 0x10000}}, 0, ".sig_key", -1, 0, 0,
     ELF_END},
    {"names table past 2^48", {{SHDR(STRTAB_INDEX, sh_offset), FAR + NAMES_AT}}, 0, ".sig_key", -1, 0, 0, ELF_END},
    {"name offset wrapping past 2^64 onto real names",
     {{SHDR(STRTAB_INDEX, sh_offset), WRAPS + NAMES_AT}, {SHDR(STRTAB_INDEX, sh_size), 0x2000},
      {SHDR(2, sh_name), 0x1000 + NAMES_SIZE - sizeof ".sig_key"}},
     0, ".sig_key", -1, 0, 0, ELF_END},
    {"32-bit class", {{EI_CLASS, 1, ELFCLASS32}}, 0, ".sig_key", -1, 0, 0, -1},
    {"no class", {{EI_CLASS, 1, ELFCLASSNONE}}, 0, ".sig_key", -1, 0, 0, -1},
    {"wrong magic", {{EI_MAG3, 1, 'f'}}, 0, ".sig_key", -1, 0, 0, -1},
    {"empty file", {{0}}, EMPTY, ".sig_key", -1, 0, 0, -1},
    {"cut inside the ELF header", {{0}}, sizeof(Elf64_Ehdr) - 1, ".sig_key", -1, 0, 0, -1},
    {"cut inside the program headers", {{0}}, PROGRAM_AT + 20, ".sig_key", -1, 0, 0, -1},
    {"cut inside the section headers", {{0}}, SECTION_AT(STRTAB_INDEX) + 10, ".sig_key", -1, 0, 0, ELF_END},
    {"cut after the names table's header", {{0}}, ELF_END, ".sig_key", 0, KEY_AT, KEY_SIZE, ELF_END},
};

static void run_made(const struct made_row* row)
{
    unsigned char file[FILE_SIZE];
    make_elf(file);
    for (const struct patch* patch = row->patches; patch < row->patches + 3 && patch->width; ++patch) {
        uint64_t value = patch->value; /* little-endian, as the made file */
        memcpy(file + patch->at, &value, patch->width);
    }
    size_t size = row->cut == EMPTY ? 0 : row->cut ? row->cut : FILE_SIZE;
    const char* path = scratch_path("made.elf");
    CHECK(write_file(path, file, size) == 0);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    CHECK(fd >= 0);
    uint64_t offset = 0x5eed, length = 0x5eed;
    int found = elf_section(fd, row->lookup, &offset, &length);
    int64_t end = elf_end(fd);
    close(fd);
    CHECK(found == row->found);
    CHECK(found != 0 || (offset == row->offset && length == row->size));
    CHECK(found == 0 || (offset == 0x5eed && length == 0x5eed)); /* untouched when not found */
    CHECK(end == row->end);
}

/* Real programs: what the reader finds must be what lies in the file. */
static const struct real_row {
    const char* name;
    const char* path;
    size_t appended; /* bytes put after a copy of the file first */
    const char* sections[3];
    uint64_t sizes[3];
} g_real[] = {
#ifdef TAVELIN_RUNTIME_BINARY
    {"the built runtime's reserved sections", TAVELIN_RUNTIME_BINARY, 0, {".sha256_sig", ".sig_key", ".upd_info"},
     {1024, 8192, 1024}},
    {"the built runtime with an image appended", TAVELIN_RUNTIME_BINARY, 4096, {".sig_key", ".shstrtab"}, {8192}},
#endif
    {"/bin/true", "/bin/true", 0, {".text", ".shstrtab"}, {0}},
    {"/bin/true with bytes appended", "/bin/true", 100, {".shstrtab"}, {0}},
};

static unsigned char* read_whole(const char* path, size_t* size)
{
    struct stat status;
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    unsigned char* bytes = NULL;
    if (fd >= 0 && fstat(fd, &status) == 0 && (bytes = malloc((size_t)status.st_size + 1))
        && pread(fd, bytes, (size_t)status.st_size, 0) == status.st_size)
        *size = (size_t)status.st_size;
    else
        free(bytes), bytes = NULL;
    if (fd >= 0)
        close(fd);
    return bytes;
}

static void run_real(const struct real_row* row)
{
    size_t size = 0;
    unsigned char* original = read_whole(row->path, &size);
    CHECK(original);
    unsigned char* copy = realloc(original, size + row->appended);
    if (!copy)
        free(original);
    CHECK(copy);
    memset(copy + size, 's', row->appended);
    const char* path = scratch_path("real.elf");
    int written = write_file(path, copy, size + row->appended);
    free(copy);
    CHECK(written == 0);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    CHECK(fd >= 0);
    int64_t end = elf_end(fd);
    int found[3] = {0}, named[3] = {0};
    uint64_t offsets[3] = {0}, lengths[3] = {0};
    for (size_t i = 0; i < 3 && row->sections[i]; ++i) {
        found[i] = elf_section(fd, row->sections[i], &offsets[i], &lengths[i]) == 0;
        /* The names table holds its own name: proof that its offset is right. */
        char* names = strcmp(row->sections[i], ".shstrtab") == 0 && found[i] ? calloc(1, lengths[i] + 1) : NULL;
        named[i] = names && pread(fd, names, lengths[i], (off_t)offsets[i]) == (ssize_t)lengths[i] && names[0] == 0
                   && memmem(names, lengths[i], "\0.shstrtab", sizeof "\0.shstrtab") != NULL;
        free(names);
    }
    close(fd);
    /* The linker puts the section headers last: the program's bytes end with them. */
    CHECK(end == (int64_t)size);
    for (size_t i = 0; i < 3 && row->sections[i]; ++i) {
        CHECK(found[i] && offsets[i] + lengths[i] <= size);
        CHECK(!row->sizes[i] || lengths[i] == row->sizes[i]);
        CHECK(named[i] || strcmp(row->sections[i], ".shstrtab") != 0);
    }
}

/* AppImages made earlier, where there are: the squashfs image starts where the ELF part ends. */
static const struct appimage_row {
    const char* name;
    const char* path;
} g_appimages[] = {
    {"the demo AppImage (tools/demo-appimage.sh)", TAVELIN_SOURCE_DIR "/out/TavelinDemo-x86_64.AppImage"},
};

static void run_appimage(const struct appimage_row* row)
{
    int fd = open(row->path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        printf("skip %s: no %s\n", row->name, row->path);
        return;
    }
    int64_t end = elf_end(fd);
    char magic[4] = {0};
    int read = end > 0 && pread(fd, magic, sizeof magic, end) == sizeof magic;
    close(fd);
    CHECK(read && memcmp(magic, "hsqs", 4) == 0);
}

int main(void)
{
    RUN_TABLE(g_made, run_made);
    RUN_TABLE(g_real, run_real);
    RUN_TABLE(g_appimages, run_appimage);
    return finish("tst_elffile");
}
