// libFuzzer target: arbitrary bytes as a file, through the runtime's ELF
// section reader and through what tavelin-pack --verify reads of the file
// before it hands the signature to gpg.
#include <QByteArray>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QString>
#include <QTemporaryDir>

// The verifier's reading steps are private, and gpg is no part of this.
#define private public
#include "DPackVerify.h"
#undef private

extern "C" {
#include "elffile.h"
}

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

// Only a 64-bit ELF header may give an answer.
bool isElf64(const uint8_t* data, size_t size)
{
    return size >= 64 && std::memcmp(data, "\x7f" "ELF\x02", 5) == 0;
}

// The bytes of a section up to its first NUL, taken straight from memory.
QByteArray textAt(const uint8_t* data, size_t size, quint64 offset, quint64 length)
{
    if (offset > size || length > size - offset)
        return QByteArray();
    const char* from = reinterpret_cast<const char*>(data) + offset;
    return QByteArray(from, int(strnlen(from, size_t(length))));
}

// The file hashed in one piece with the two signature sections zeroed, as hex.
QByteArray digestOf(const uint8_t* data, size_t size, const DPackVerify& verify)
{
    QByteArray baBytes(reinterpret_cast<const char*>(data), int(size));
    for (const auto& range : {qMakePair(verify.sigOffset, verify.sigSize), qMakePair(verify.keyOffset, verify.keySize)}) {
        for (quint64 at = range.first; at < size && at - range.first < range.second; ++at)
            baBytes[int(at)] = '\0';
    }
    return QCryptographicHash::hash(baBytes, QCryptographicHash::Sha256).toHex();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // One scratch file for the whole run; the directory goes when the process ends.
    static QTemporaryDir dirScratch;
    static const QString strPath = dirScratch.isValid() ? QDir(dirScratch.path()).filePath(QStringLiteral("input.AppImage"))
                                                        : QString();
    QFile file(strPath);
    if (strPath.isEmpty() || !file.open(QIODevice::WriteOnly | QIODevice::Truncate)
        || file.write(reinterpret_cast<const char*>(data), qint64(size)) != qint64(size) || !file.flush())
        abort();
    file.close();

    const int fd = open(QFile::encodeName(strPath).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        abort();
    bool bFoundAny = false;
    for (const char* name : {".sha256_sig", ".sig_key", ".upd_info", ".shstrtab", ""}) {
        uint64_t offset = 0, length = 0;
        bFoundAny |= elf_section(fd, name, &offset, &length) == 0;
    }
    const int64_t end = elf_end(fd);
    close(fd);
    if ((bFoundAny || end >= 0) && !isElf64(data, size))
        abort();
    if (end >= (int64_t(1) << 48))
        abort();

    DPackVerify verify;
    if (!verify.readSections(strPath))
        return 0;
    // Found sections lie inside the file, and their text is what the file holds there.
    if (size < 11 || std::memcmp(data + 8, "AI\x02", 3) != 0 || !isElf64(data, size)
        || verify.sigOffset > size || verify.sigSize > size - verify.sigOffset || verify.keyOffset > size
        || verify.keySize > size - verify.keyOffset
        || verify.baSignature != textAt(data, size, verify.sigOffset, verify.sigSize)
        || verify.baKey != textAt(data, size, verify.keyOffset, verify.keySize))
        abort();
    if (!verify.digest(strPath) || verify.baDigest != digestOf(data, size, verify))
        abort();
    return 0;
}
