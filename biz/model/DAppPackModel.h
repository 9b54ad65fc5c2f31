#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <string>

// The manifest records. Each record's keys are listed once, in an X-macro
// table of (kind, member); the declaration, the key lookup, the writer and
// the comparison are all expanded from that one table.
//   TEXT:    std::string holding UTF-8, default empty
//   INT:     int, default 0
//   SECTION: a nested record

#define TAVELIN_DECLARE_TEXT(name) std::string name;
#define TAVELIN_DECLARE_INT(name) int name;
#define TAVELIN_DECLARE_SECTION(type, name) type name;

/// The operations every JSON-bound record carries.
#define TAVELIN_JSON_BINDING(Record)                                                   \
    void setValueFromJsonVal(const char* pairKey, const QJsonValue& pairValue);       \
    void fromJsonString(const QString& strJson);                                       \
    QString toJsonString() const;                                                      \
    QJsonObject toJsonObject() const;                                                  \
    bool operator==(const Record& rhs) const;                                          \
    bool operator!=(const Record& rhs) const { return !(*this == rhs); }

#define TAPPBASEINFO_FIELDS(TEXT, INT, SECTION)                                        \
    TEXT(nameEng)                                                                      \
    TEXT(nameChs)                                                                      \
    TEXT(version)                                                                      \
    TEXT(publisher)                                                                    \
    TEXT(website)                                                                      \
    TEXT(author)                                                                       \
    TEXT(email)

#define TAPPINSTALLINFO_FIELDS(TEXT, INT, SECTION)                                     \
    TEXT(defaultParentDir)                                                             \
    TEXT(dir)                                                                          \
    TEXT(appIcon)                                                                      \
    INT(filesTotalCount)                                                               \
    TEXT(desktopFile)

#define TAPPFILES_FIELDS(TEXT, INT, SECTION)                                           \
    TEXT(localDir)                                                                     \
    TEXT(mainExePath)                                                                  \
    INT(autoRun)

#define TAPPAPPEARANCE_FIELDS(TEXT, INT, SECTION)                                      \
    TEXT(iconPath)                                                                     \
    TEXT(desktopPath)                                                                  \
    INT(shortcutOnDesktop)                                                             \
    INT(shortcutOnStartMenu)

#define TAPPPACKOTHER_FIELDS(TEXT, INT, SECTION)                                       \
    TEXT(installPkgPath)                                                               \
    TEXT(installPkgName)

#define TAPPPACKINFO_FIELDS(TEXT, INT, SECTION)                                        \
    SECTION(TAppBaseInfo, base)                                                        \
    SECTION(TAppInstallInfo, install)                                                  \
    SECTION(TAppFiles, files)                                                          \
    SECTION(TAppAppearance, appearance)                                                \
    SECTION(TAppPackOther, other)

#define TAVELIN_DECLARE_FIELDS(TABLE)                                                  \
    TABLE(TAVELIN_DECLARE_TEXT, TAVELIN_DECLARE_INT, TAVELIN_DECLARE_SECTION)

/// Shown to the user.
struct TAppBaseInfo
{
    TAVELIN_DECLARE_FIELDS(TAPPBASEINFO_FIELDS)
    TAVELIN_JSON_BINDING(TAppBaseInfo)
};

/// What the install needs.
struct TAppInstallInfo
{
    TAppInstallInfo();
    TAVELIN_DECLARE_FIELDS(TAPPINSTALLINFO_FIELDS)
    TAVELIN_JSON_BINDING(TAppInstallInfo)
};

struct TAppFiles
{
    TAppFiles();
    TAVELIN_DECLARE_FIELDS(TAPPFILES_FIELDS)
    TAVELIN_JSON_BINDING(TAppFiles)
};

struct TAppAppearance
{
    TAppAppearance();
    TAVELIN_DECLARE_FIELDS(TAPPAPPEARANCE_FIELDS)
    TAVELIN_JSON_BINDING(TAppAppearance)
};

struct TAppPackOther
{
    TAVELIN_DECLARE_FIELDS(TAPPPACKOTHER_FIELDS)
    TAVELIN_JSON_BINDING(TAppPackOther)
};

/// The manifest, soft/mainifest.json.
struct TAppPackInfo
{
    TAVELIN_DECLARE_FIELDS(TAPPPACKINFO_FIELDS)
    TAVELIN_JSON_BINDING(TAppPackInfo)
};
