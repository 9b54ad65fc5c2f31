#pragma once

#include "DPackTree.h"

#include <QString>
#include <QStringList>

/// Everything a packager gives for one package.
struct TPackRequest
{
    QString appTree;
    QString desktopEntry;
    QString icon;
    QString nameEng;
    QString nameChs;
    QString version;
    QString publisher;
    QString website;
    QString author;
    QString email;
    QString defaultParentDir;
    QString dir;
    QString localDir;
    QString mainExePath;
    QString outputDir;
    QString appImage;
    QString updateInformation;
    QString signKey;
    /// The machine the AppImage is for, as uname -m names it.
    QString machine;
};

/// Checks a package and writes its payload: soft/mainifest.json, soft/app,
/// the desktop entry and the icon, as the wizard reads them.
class DPacker
{
public:
    /// The payload's paths as "key=path" lines, for the AppDir script.
    static QString payloadLayout();
    /// check(), then write() into request.outputDir.
    bool pack(const TPackRequest& request);
    /// Every refusal, before anything is written.
    bool check(const TPackRequest& request);
    /// Writes the checked package below strOutputDir; a failure leaves nothing there.
    bool write(const TPackRequest& request, const QString& strOutputDir);
    /// Takes back what write() put in place: soft/, or the directories it created.
    void removePayload();

    QString getError() const { return strError; }
    QStringList getWarnings() const { return warnings; }
    QStringList getChecksPassed() const { return checksPassed; }
    int getFilesTotalCount() const { return scan.count(); }
    int getDirCount() const;
    qint64 getPayloadBytes() const { return payloadBytes; }

private:
    /// Notes strCheck among the checks passed when bOk; returns bOk.
    bool passed(bool bOk, const QString& strCheck);
    bool checkTree(const QString& strAppTree);
    bool checkOutputDir(const QString& strOutputDir);
    void warnIfNotExecutable(const TPackRequest& request);
    bool writePayload(const TPackRequest& request);
    bool writeManifest(const TPackRequest& request, const QString& strPath);
    bool copyFile(const QString& strSrc, const QString& strDst);

    TPackTreeScan scan;
    QString strError;
    QStringList warnings;
    QStringList checksPassed;
    QString strCreatedDir;
    QString strSoftDir;
    qint64 payloadBytes = 0;
};
