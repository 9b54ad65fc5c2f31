#include "DPackVerify.h"

extern "C" {
#include "elffile.h"
}

#include <QCryptographicHash>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>


namespace {

/// The bytes of a section up to its first zero: what was written into it.
QByteArray sectionText(QFile& file, quint64 offset, quint64 size)
{
    if (!file.seek(qint64(offset)))
        return {};
    const QByteArray baBytes = file.read(qint64(size));
    return baBytes.left(baBytes.indexOf('\0') < 0 ? baBytes.size() : baBytes.indexOf('\0'));
}

/// Whether [offset, offset + size) lies in the file; a damaged header's
/// sum may wrap round, so it is never added.
bool inFile(quint64 offset, quint64 size, quint64 fileSize)
{
    return size <= fileSize && offset <= fileSize - size;
}

bool isAppImageType2(QFile& file)
{
    return file.seek(8) && file.read(3) == QByteArray("AI\x02", 3);
}

bool writeFile(const QString& strPath, const QByteArray& baBytes)
{
    QFile file(strPath);
    return file.open(QIODevice::WriteOnly) && file.write(baBytes) == baBytes.size() && file.flush();
}

} // namespace

bool DPackVerify::verify(const QString& strFile)
{
    QTemporaryDir dirHome;
    if (!readSections(strFile) || !digest(strFile))
        return false;
    if (!dirHome.isValid())
        return refuse(QStringLiteral("cannot make a temporary directory: %1").arg(dirHome.errorString()));
    const bool bGood = runGpg(dirHome.path());
    // gpg may have started an agent for the throw-away home; it ends with it.
    QProcess::execute(QStringLiteral("gpgconf"), {QStringLiteral("--homedir"), dirHome.path(),
                                                  QStringLiteral("--kill"), QStringLiteral("all")});
    return bGood;
}

bool DPackVerify::readSections(const QString& strFile)
{
    QFile file(strFile);
    if (!file.open(QIODevice::ReadOnly))
        return refuse(QStringLiteral("cannot read %1: %2").arg(strFile, file.errorString()));
    const int fd = file.handle();
    uint64_t offset[2] = {}, size[2] = {};
    if (!isAppImageType2(file) || elf_section(fd, ".sha256_sig", &offset[0], &size[0]) != 0
        || elf_section(fd, ".sig_key", &offset[1], &size[1]) != 0
        || !inFile(offset[0], size[0], quint64(file.size())) || !inFile(offset[1], size[1], quint64(file.size())))
        return refuse(QStringLiteral("%1 is not an AppImage with room for a signature").arg(strFile));
    sigOffset = offset[0], sigSize = size[0], keyOffset = offset[1], keySize = size[1];
    baSignature = sectionText(file, sigOffset, sigSize);
    baKey = sectionText(file, keyOffset, keySize);
    if (baSignature.isEmpty() || baKey.isEmpty())
        return refuse(QStringLiteral("%1 is not signed").arg(strFile));
    return true;
}

bool DPackVerify::digest(const QString& strFile)
{
    QFile file(strFile);
    if (!file.open(QIODevice::ReadOnly))
        return refuse(QStringLiteral("cannot read %1: %2").arg(strFile, file.errorString()));
    QCryptographicHash hash(QCryptographicHash::Sha256);
    quint64 at = 0;
    while (!file.atEnd()) {
        QByteArray baChunk = file.read(1 << 20);
        if (baChunk.isEmpty())
            return refuse(QStringLiteral("cannot read %1: %2").arg(strFile, file.errorString()));
        // The signature's own two sections count as zeros.
        for (const auto& range : {qMakePair(sigOffset, sigSize), qMakePair(keyOffset, keySize)}) {
            const quint64 from = qMax(at, range.first), to = qMin(at + baChunk.size(), range.first + range.second);
            if (from < to)
                baChunk.replace(int(from - at), int(to - from), QByteArray(int(to - from), '\0'));
        }
        hash.addData(baChunk);
        at += baChunk.size();
    }
    baDigest = hash.result().toHex();
    return true;
}

bool DPackVerify::runGpg(const QString& strHome)
{
    const QString strKey = strHome + QStringLiteral("/key.asc");
    const QString strSignature = strHome + QStringLiteral("/signature.asc");
    const QString strDigest = strHome + QStringLiteral("/digest");
    if (!writeFile(strKey, baKey) || !writeFile(strSignature, baSignature) || !writeFile(strDigest, baDigest))
        return refuse(QStringLiteral("cannot write into %1").arg(strHome));
    const QStringList home = {QStringLiteral("--batch"), QStringLiteral("--no-tty"), QStringLiteral("--homedir"), strHome};
    QProcess gpg;
    gpg.setStandardInputFile(QProcess::nullDevice());
    gpg.start(QStringLiteral("gpg"), QStringList(home) << QStringLiteral("--import") << strKey);
    if (!gpg.waitForFinished(-1))
        return refuse(QStringLiteral("cannot run gpg (Debian package gnupg): %1").arg(gpg.errorString()));
    if (gpg.exitStatus() != QProcess::NormalExit || gpg.exitCode() != 0)
        return refuse(QStringLiteral("the key in .sig_key cannot be read: %1")
                          .arg(QString::fromLocal8Bit(gpg.readAllStandardError()).trimmed()));
    gpg.start(QStringLiteral("gpg"), QStringList(home) << QStringLiteral("--status-fd") << QStringLiteral("1")
                                                       << QStringLiteral("--verify") << strSignature << strDigest);
    gpg.waitForFinished(-1);
    QString strUserId, strFingerprint, strBadBy;
    for (const QByteArray& baLine : gpg.readAllStandardOutput().split('\n')) {
        const QList<QByteArray> fields = baLine.split(' ');
        if (fields.size() < 3 || fields[0] != "[GNUPG:]")
            continue;
        const QString strRest = QString::fromUtf8(fields.mid(3).join(' '));
        if (fields[1] == "GOODSIG")
            strUserId = strRest;
        else if (fields[1] == "BADSIG")
            strBadBy = strRest;
        else if (fields[1] == "VALIDSIG")
            strFingerprint = QString::fromLatin1(fields.last());
    }
    if (!strBadBy.isEmpty())
        return refuse(QStringLiteral("bad signature: the file was changed after %1 signed it").arg(strBadBy));
    if (gpg.exitStatus() != QProcess::NormalExit || gpg.exitCode() != 0 || strFingerprint.isEmpty())
        return refuse(QStringLiteral("the signature cannot be checked with the key in .sig_key: %1")
                          .arg(QString::fromLocal8Bit(gpg.readAllStandardError()).trimmed()));
    strSigner = QStringLiteral("%1 %2").arg(strFingerprint, strUserId);
    return true;
}

bool DPackVerify::refuse(const QString& strWhy)
{
    strError = strWhy;
    return false;
}
