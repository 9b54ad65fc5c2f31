#include "mainwindow.h"

// Apart from the rest of the configuration, so that the packer writes the
// payload from the same strings without linking the wizard.

QString DTavelinGuiConfig::getPayloadDir() { return QStringLiteral("soft"); }
QString DTavelinGuiConfig::getManifestPath() { return getPayloadDir() + QStringLiteral("/mainifest.json"); }
QString DTavelinGuiConfig::getAppFilesPath() { return getPayloadDir() + QStringLiteral("/app"); }
QString DTavelinGuiConfig::getDesktopDirPath() { return getPayloadDir() + QStringLiteral("/desktop/share/applications"); }
QString DTavelinGuiConfig::getImagesDirPath() { return getPayloadDir() + QStringLiteral("/images"); }
