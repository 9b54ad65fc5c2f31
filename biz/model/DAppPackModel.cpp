#include "DAppPackModel.h"

#include "binalib.h"

#include <QJsonDocument>

#include <strings.h>

namespace {

// Applies a JSON text key by key; keys() is sorted, so of keys that differ
// only in case the last in that order wins.
template <typename Record>
void applyJsonString(Record& record, const QString& strJson)
{
    // The C-string constructor ends the text at its first U+0000.
    const QByteArray baJson(strJson.toUtf8().constData(), -1);
    const QJsonDocument jsonDocument = QJsonDocument::fromJson(baJson);
    if (jsonDocument.isNull())
        return;
    const QJsonObject jsonObject = jsonDocument.object();
    const QStringList keys = jsonObject.keys();
    for (const QString& key : keys)
        record.setValueFromJsonVal(key.toUtf8().constData(), jsonObject.value(key));
}

QString jsonObjectToString(const QJsonObject& jsonObject)
{
    return QString::fromUtf8(QJsonDocument(jsonObject).toJson());
}

} // namespace

// strcasecmp folds ASCII only: the load runs before any locale is set up.
#define TAVELIN_SET_TEXT(name)                                                         \
    if (strcasecmp(pairKey, #name) == 0) {                                             \
        name = bina::jsonval2str(pairValue);                                           \
        return;                                                                        \
    }
#define TAVELIN_SET_INT(name)                                                          \
    if (strcasecmp(pairKey, #name) == 0) {                                             \
        name = bina::jsonval2int(pairValue);                                           \
        return;                                                                        \
    }
#define TAVELIN_SET_SECTION(type, name)                                                \
    if (strcasecmp(pairKey, #name) == 0) {                                             \
        name = bina::jsonval2obj<type>(pairValue);                                     \
        return;                                                                        \
    }

#define TAVELIN_PUT_TEXT(name) jsonObject.insert(QStringLiteral(#name), QString::fromStdString(name));
#define TAVELIN_PUT_INT(name) jsonObject.insert(QStringLiteral(#name), name);
#define TAVELIN_PUT_SECTION(type, name) jsonObject.insert(QStringLiteral(#name), name.toJsonObject());

#define TAVELIN_EQ_TEXT(name) &&name == rhs.name
#define TAVELIN_EQ_INT(name) &&name == rhs.name
#define TAVELIN_EQ_SECTION(type, name) &&name == rhs.name

#define TAVELIN_DEFINE_JSON_BINDING(Record, TABLE)                                     \
    void Record::setValueFromJsonVal(const char* pairKey, const QJsonValue& pairValue) \
    {                                                                                  \
        TABLE(TAVELIN_SET_TEXT, TAVELIN_SET_INT, TAVELIN_SET_SECTION)                  \
    }                                                                                  \
    void Record::fromJsonString(const QString& strJson)                                \
    {                                                                                  \
        applyJsonString(*this, strJson);                                               \
    }                                                                                  \
    QJsonObject Record::toJsonObject() const                                           \
    {                                                                                  \
        QJsonObject jsonObject;                                                        \
        TABLE(TAVELIN_PUT_TEXT, TAVELIN_PUT_INT, TAVELIN_PUT_SECTION)                  \
        return jsonObject;                                                             \
    }                                                                                  \
    QString Record::toJsonString() const                                               \
    {                                                                                  \
        return jsonObjectToString(toJsonObject());                                     \
    }                                                                                  \
    bool Record::operator==(const Record& rhs) const \
    {                                                                                  \
        return true TABLE(TAVELIN_EQ_TEXT, TAVELIN_EQ_INT, TAVELIN_EQ_SECTION);        \
    }

TAppInstallInfo::TAppInstallInfo()
    : filesTotalCount(0)
{
}

TAppFiles::TAppFiles()
    : autoRun(0)
{
}

TAppAppearance::TAppAppearance()
    : shortcutOnDesktop(0)
    , shortcutOnStartMenu(0)
{
}

TAVELIN_DEFINE_JSON_BINDING(TAppBaseInfo, TAPPBASEINFO_FIELDS)
TAVELIN_DEFINE_JSON_BINDING(TAppInstallInfo, TAPPINSTALLINFO_FIELDS)
TAVELIN_DEFINE_JSON_BINDING(TAppFiles, TAPPFILES_FIELDS)
TAVELIN_DEFINE_JSON_BINDING(TAppAppearance, TAPPAPPEARANCE_FIELDS)
TAVELIN_DEFINE_JSON_BINDING(TAppPackOther, TAPPPACKOTHER_FIELDS)
TAVELIN_DEFINE_JSON_BINDING(TAppPackInfo, TAPPPACKINFO_FIELDS)
