#pragma once

#include <QString>

/// Checks the signature an AppImage carries, the way the AppImage tools do:
/// gpg, with a keyring of its own holding only the key from .sig_key, checks
/// the signature from .sha256_sig over the hex SHA-256 of the file with those
/// two sections zeroed. The user's own keyring is never read or written.
class DPackVerify
{
public:
    /// True for a good signature, with getSigner() set; false with getError()
    /// set for a bad signature, an unsigned file or one that is no AppImage.
    bool verify(const QString& strFile);

    /// "<fingerprint> <user id>" of the key that made the good signature.
    QString getSigner() const { return strSigner; }
    QString getError() const { return strError; }

private:
    bool readSections(const QString& strFile);
    bool digest(const QString& strFile);
    bool runGpg(const QString& strHome);
    bool refuse(const QString& strWhy);

    quint64 sigOffset = 0;
    quint64 sigSize = 0;
    quint64 keyOffset = 0;
    quint64 keySize = 0;
    QByteArray baSignature;
    QByteArray baKey;
    QByteArray baDigest;
    QString strSigner;
    QString strError;
};
