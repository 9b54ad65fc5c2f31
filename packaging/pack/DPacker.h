#pragma once

#include <QString>
#include <QStringList>

struct TPackTreeScan;

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
};

/// Checks a package and writes its payload: soft/mainifest.json, soft/app,
/// the desktop entry and the icon, as the wizard reads them.
class DPacker
{
public:
    bool pack(const TPackRequest& request);

    QString getError() const { return strError; }
    QStringList getWarnings() const { return warnings; }
    int getFilesTotalCount() const { return filesTotalCount; }

private:
    bool checkOutputDir(const QString& strOutputDir);
    void warnIfNotExecutable(const TPackRequest& request);
    bool writePayload(const TPackRequest& request, const TPackTreeScan& scan);
    bool writeManifest(const TPackRequest& request, const QString& strPath);
    bool copyFile(const QString& strSrc, const QString& strDst);

    QString strError;
    QStringList warnings;
    int filesTotalCount = 0;
};
