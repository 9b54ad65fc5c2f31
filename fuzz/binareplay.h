#pragma once

#include "binalib.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <vector>

// Every bina decoder on values built from one input. False when a decoded
// value does not survive its encoder and the decoder again.
namespace FuzzReplay {

template <typename Decode, typename Encode>
bool survivesRoundTrip(const QJsonValue& val, Decode decode, Encode encode)
{
    const auto native = decode(val);
    return decode(QJsonValue(encode(native))) == native;
}

inline bool checkBinaDecoders(const QJsonValue& val)
{
    using namespace bina;
    // No encoders exist for the cut integers; they only have to run.
    (void)jsonval2uc(val);
    (void)jsonval2us(val);
    (void)jsonval2ui(val);

    // str2jsonval stops at the first NUL, so only that prefix comes back.
    const std::string strNative = jsonval2str(val);
    if (jsonval2str(QJsonValue(str2jsonval(strNative))) != std::string(strNative.c_str()))
        return false;

    bool bOk = survivesRoundTrip(val, jsonval2int, static_cast<int (*)(int)>(num2jsonval))
        && survivesRoundTrip(val, jsonval2ll, static_cast<QString (*)(long long)>(num2jsonval))
        && survivesRoundTrip(val, jsonval2ull, static_cast<QString (*)(unsigned long long)>(num2jsonval))
        && survivesRoundTrip(val, jsonval2double, static_cast<double (*)(double)>(num2jsonval))
        && survivesRoundTrip(val, jsonval2bool, [](bool b) { return b; })
        && survivesRoundTrip(val, jsonval2stringvector, stringvec2jsonarray)
        && survivesRoundTrip(val, jsonval2intvector, intvec2jsonarray)
        && survivesRoundTrip(val, jsonval2doublevector, doublevec2jsonarray)
        && survivesRoundTrip(val, jsonval2boolvector, boolvec2jsonarray)
        && survivesRoundTrip(val, jsonval2sstringmap, sstringmap2jsonobj)
        && survivesRoundTrip(val, jsonval2sintmap, sintmap2jsonobj)
        && survivesRoundTrip(val, jsonval2sdoublemap, sdoublemap2jsonobj)
        && survivesRoundTrip(val, jsonval2sboolmap, sboolmap2jsonobj)
        && survivesRoundTrip(val, jsonval2llstringmap, llstringmap2jsonobj)
        && survivesRoundTrip(val, jsonval2llintmap, llintmap2jsonobj)
        && survivesRoundTrip(val, jsonval2lldoublemap, lldoublemap2jsonobj)
        && survivesRoundTrip(val, jsonval2llboolmap, llboolmap2jsonobj);

    const QDateTime dtNative = jsonval2DatetimeZzzObj(val);
    if (dtNative.isValid())
        bOk = bOk && jsonval2DatetimeZzzObj(QJsonValue(datetimeZzzObj2jsonobj(dtNative))) == dtNative;
    return bOk;
}

/// The bytes as one JSON string, the document they parse to (or, failing
/// that, the array they parse to inside brackets), and its children.
inline std::vector<QJsonValue> valuesOfInput(const QByteArray& baInput)
{
    std::vector<QJsonValue> values{QJsonValue(QString::fromUtf8(baInput.constData(), baInput.size()))};
    QJsonDocument jsonDocument = QJsonDocument::fromJson(baInput);
    if (jsonDocument.isNull())
        jsonDocument = QJsonDocument::fromJson("[" + baInput + "]");
    if (jsonDocument.isObject()) {
        const QJsonObject jsonObject = jsonDocument.object();
        values.push_back(jsonObject);
        for (auto it = jsonObject.begin(); it != jsonObject.end(); ++it)
            values.push_back(it.value());
    } else if (jsonDocument.isArray()) {
        const QJsonArray jsonArray = jsonDocument.array();
        values.push_back(jsonArray);
        for (const QJsonValue& jsonValue : jsonArray)
            values.push_back(jsonValue);
    }
    return values;
}

inline bool replayBinaDecoders(const QByteArray& baInput)
{
    bool bOk = true;
    for (const QJsonValue& val : valuesOfInput(baInput))
        bOk = checkBinaDecoders(val) && bOk;
    return bOk;
}

} // namespace FuzzReplay
