#include "mainwindow.h"

#include "JsonUtil.h"

#include <QFileInfo>

#include <vector>

#include <pwd.h>
#include <unistd.h>

unsigned int DTavelinUtil::getCurrentUserId()
{
    return geteuid();
}

// The reentrant form: the worker thread asks too, while the page may ask on a show event.
QString DTavelinUtil::getCurrentUser()
{
    struct passwd pwd;
    struct passwd* pw = nullptr;
    std::vector<char> buffer(16384);
    if (getpwuid_r(geteuid(), &pwd, buffer.data(), buffer.size(), &pw) == 0 && pw)
        return QString::fromLocal8Bit(pw->pw_name);
    return QString::fromLocal8Bit(qgetenv("USER"));
}

DTavelinGuiConfig& DTavelinGuiConfig::getInstance()
{
    static DTavelinGuiConfig instance;
    return instance;
}

DTavelinGuiConfig::DTavelinGuiConfig()
    : appPackInfo(new TAppPackInfo)
    , bFlagOfOverrideTargetDir(false)
{
}

DTavelinGuiConfig::~DTavelinGuiConfig()
{
    delete appPackInfo;
    appPackInfo = nullptr;
}

void DTavelinGuiConfig::init()
{
    envAppImage = QString::fromLocal8Bit(qgetenv("APPIMAGE"));
    envAppDir = QString::fromLocal8Bit(qgetenv("APPDIR"));

    // Under an AppImage the paths are joined as they come; unpacked, the
    // payload is found through the current directory and made absolute.
    const bool bRelative = envAppDir.isEmpty();
    const QString strRoot = bRelative ? QString() : envAppDir + QLatin1Char('/');
    const QString strManifest = strRoot + getManifestPath();
    JsonUtil::initObjFromJsonFile(strManifest.toStdString(), *appPackInfo);

    const QString strFilesDir = strRoot + getAppFilesPath();
    const QString strDesktop = strRoot + getDesktopDirPath() + QLatin1Char('/')
        + QString::fromStdString(appPackInfo->install.desktopFile);
    srcAppFilesDir = bRelative ? QFileInfo(strFilesDir).canonicalFilePath() : strFilesDir;
    srcAppDesktopDir = bRelative ? QFileInfo(strDesktop).canonicalFilePath() : strDesktop;
}

TAppPackInfo* DTavelinGuiConfig::getAppPackInfo() { return appPackInfo; }
QString DTavelinGuiConfig::getEnvAppImage() const { return envAppImage; }
void DTavelinGuiConfig::setEnvAppImage(const QString& value) { envAppImage = value; }
QString DTavelinGuiConfig::getEnvAppDir() const { return envAppDir; }
void DTavelinGuiConfig::setEnvAppDir(const QString& value) { envAppDir = value; }
QString DTavelinGuiConfig::getTargetInstallDir() const { return targetInstallDir; }
void DTavelinGuiConfig::setTargetInstallDir(const QString& value) { targetInstallDir = value; }
QString DTavelinGuiConfig::getSrcAppFilesDir() const { return srcAppFilesDir; }
QString DTavelinGuiConfig::getSrcAppDesktopDir() const { return srcAppDesktopDir; }
void DTavelinGuiConfig::setFlagOfOverrideTargetDir(bool bFlag) { bFlagOfOverrideTargetDir = bFlag; }
bool DTavelinGuiConfig::getFlagOfOverrideTargetDir() const { return bFlagOfOverrideTargetDir; }
void DTavelinGuiConfig::setTargetDesktopFilePath(const QString& value) { targetDesktopFilePath = value; }
QString DTavelinGuiConfig::getTargetDesktopFilePath() const { return targetDesktopFilePath; }
