#include "wizardsupport.h"

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>

namespace TestSupport {

QString applicationsDir()
{
    if (DTavelinUtil::getCurrentUser() == QLatin1String("root"))
        return QStringLiteral("/usr/share/applications");
    return QDir::homePath() + QStringLiteral("/.local/share/applications");
}

bool loadPayload(const QString& strAppDir, int filesTotalCount, const QStringList& appFiles)
{
    const QJsonObject jsonRoot{
        {QStringLiteral("base"), QJsonObject{{QStringLiteral("nameEng"), QStringLiteral("Probe")}}},
        {QStringLiteral("install"), QJsonObject{{QStringLiteral("dir"), QStringLiteral("probe")},
                                                {QStringLiteral("filesTotalCount"), filesTotalCount},
                                                {QStringLiteral("desktopFile"), QStringLiteral("probe.desktop")}}}};
    bool bOk = writeFile(strAppDir + QStringLiteral("/soft/mainifest.json"), QJsonDocument(jsonRoot).toJson())
        && writeFile(strAppDir + QStringLiteral("/soft/desktop/share/applications/probe.desktop"),
                     "[Desktop Entry]\nName=Probe\nExec=bin/probe %U\n")
        && QDir().mkpath(strAppDir + QStringLiteral("/soft/app"));
    for (const QString& strFile : appFiles)
        bOk = bOk && writeFile(strAppDir + QStringLiteral("/soft/app/") + strFile, strFile.toUtf8());
    qputenv("APPDIR", QFile::encodeName(strAppDir));
    DTavelinGuiConfig::getInstance().init();
    return bOk;
}

} // namespace TestSupport
