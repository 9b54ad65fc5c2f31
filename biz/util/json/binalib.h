#pragma once

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <string>

// Conversions between Qt's JSON values and native values. Decoders never
// report: a value of the wrong type gives the type's default.
namespace bina {

std::string jsonval2str(const QJsonValue& val);
int jsonval2int(const QJsonValue& val);

/// A record filled from a JSON object by its own fromJsonString; a default
/// record when val is no object.
template <typename T>
T jsonval2obj(const QJsonValue& val)
{
    T objVal;
    // The section is printed and parsed again, so a record only needs one way in.
    const QByteArray baJson = QJsonDocument(val.toObject()).toJson();
    objVal.fromJsonString(QString(baJson));
    return objVal;
}

} // namespace bina
