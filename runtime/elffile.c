#include "elffile.h"

#include <elf.h>
#include <string.h>
#include <unistd.h>

/* Offsets in a damaged header can be anything; past this they are nonsense. */
static const uint64_t g_farthest = UINT64_C(1) << 48;

static int read_at(int fd, void* buffer, size_t size, uint64_t offset)
{
    return offset < g_farthest && pread(fd, buffer, size, (off_t)offset) == (ssize_t)size ? 0 : -1;
}

static int read_header(int fd, Elf64_Ehdr* header)
{
    return read_at(fd, header, sizeof *header, 0) == 0 && memcmp(header->e_ident, ELFMAG, SELFMAG) == 0
                   && header->e_ident[EI_CLASS] == ELFCLASS64
               ? 0
               : -1;
}

int64_t elf_end(int fd)
{
    Elf64_Ehdr header;
    /* Past g_farthest the sum below could wrap round to a plausible end. */
    if (read_header(fd, &header) != 0 || header.e_phentsize < sizeof(Elf64_Phdr) || header.e_shoff >= g_farthest)
        return -1;
    uint64_t end = header.e_shoff + (uint64_t)header.e_shnum * header.e_shentsize;
    for (unsigned i = 0; i < header.e_phnum; ++i) {
        Elf64_Phdr program;
        if (read_at(fd, &program, sizeof program, header.e_phoff + (uint64_t)i * header.e_phentsize) != 0)
            return -1;
        if (program.p_offset < g_farthest && program.p_filesz < g_farthest && program.p_offset + program.p_filesz > end)
            end = program.p_offset + program.p_filesz;
    }
    return end < g_farthest ? (int64_t)end : -1;
}

static int read_section_header(int fd, const Elf64_Ehdr* header, unsigned index, Elf64_Shdr* section)
{
    if (index >= header->e_shnum || header->e_shentsize != sizeof *section)
        return -1;
    return read_at(fd, section, sizeof *section, header->e_shoff + (uint64_t)index * sizeof *section);
}

int elf_section(int fd, const char* name, uint64_t* offset, uint64_t* size)
{
    Elf64_Ehdr header;
    Elf64_Shdr names, section;
    char found[32];
    size_t length = strlen(name) + 1;
    if (length > sizeof found || read_header(fd, &header) != 0
        || read_section_header(fd, &header, header.e_shstrndx, &names) != 0)
        return -1;
    for (unsigned i = 0; read_section_header(fd, &header, i, &section) == 0; ++i) {
        /* A names offset past g_farthest plus sh_name could wrap round onto real bytes. */
        if (names.sh_offset < g_farthest && section.sh_name < names.sh_size && names.sh_size - section.sh_name >= length
            && read_at(fd, found, length, names.sh_offset + section.sh_name) == 0 && memcmp(found, name, length) == 0) {
            *offset = section.sh_offset;
            *size = section.sh_size;
            return 0;
        }
    }
    return -1;
}
