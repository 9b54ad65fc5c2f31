#include "elfend.h"

#include <elf.h>
#include <stdio.h>
#include <string.h>

int64_t elf_end_of_file(const char* path)
{
    FILE* file = fopen(path, "rb");
    if (!file)
        return -1;
    Elf64_Ehdr header;
    int64_t end = -1;
    if (fread(&header, sizeof header, 1, file) == 1 && memcmp(header.e_ident, ELFMAG, SELFMAG) == 0
        && header.e_ident[EI_CLASS] == ELFCLASS64) {
        end = (int64_t)(header.e_shoff + (uint64_t)header.e_shnum * header.e_shentsize);
        for (int i = 0; i < header.e_phnum; ++i) {
            Elf64_Phdr program;
            if (fseek(file, (long)(header.e_phoff + (uint64_t)i * header.e_phentsize), SEEK_SET) != 0
                || fread(&program, sizeof program, 1, file) != 1) {
                end = -1;
                break;
            }
            if ((int64_t)(program.p_offset + program.p_filesz) > end)
                end = (int64_t)(program.p_offset + program.p_filesz);
        }
    }
    fclose(file);
    return end;
}
