#include "DPackConfig.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

QString typeName(const QJsonValue& value)
{
    switch (value.type()) {
    case QJsonValue::Null:
        return QStringLiteral("null");
    case QJsonValue::Bool:
        return QStringLiteral("a boolean");
    case QJsonValue::Double:
        return QStringLiteral("a number");
    case QJsonValue::Array:
        return QStringLiteral("an array");
    case QJsonValue::Object:
        return QStringLiteral("an object");
    default:
        return QStringLiteral("nothing");
    }
}

} // namespace

bool DPackConfig::load(const QString& strPath, const QStringList& knownKeys)
{
    strFile = strPath;
    values.clear();
    QFile file(strPath);
    if (!file.open(QIODevice::ReadOnly))
        return fail(QStringLiteral("cannot be read: %1").arg(file.errorString()));
    QJsonParseError parseError;
    const QJsonDocument jsonDocument = QJsonDocument::fromJson(file.readAll(), &parseError);
    if (jsonDocument.isNull())
        return fail(QStringLiteral("is not JSON: %1 at byte %2").arg(parseError.errorString(), QString::number(parseError.offset)));
    if (!jsonDocument.isObject())
        return fail(QStringLiteral("holds no JSON object"));
    const QJsonObject jsonObject = jsonDocument.object();
    for (auto it = jsonObject.begin(); it != jsonObject.end(); ++it) {
        if (!knownKeys.contains(it.key()))
            return fail(QStringLiteral("unknown key \"%1\"").arg(it.key()));
        if (!it.value().isString())
            return fail(QStringLiteral("\"%1\" must be a string, not %2").arg(it.key(), typeName(it.value())));
        values.insert(it.key(), it.value().toString());
    }
    return true;
}

QString DPackConfig::path(const QString& strKey) const
{
    const QString strValue = value(strKey);
    if (strValue.isEmpty())
        return strValue;
    return QDir::cleanPath(QFileInfo(strFile).absoluteDir().filePath(strValue));
}

bool DPackConfig::fail(const QString& strWhat)
{
    strError = QStringLiteral("%1: %2").arg(strFile, strWhat);
    values.clear();
    return false;
}
