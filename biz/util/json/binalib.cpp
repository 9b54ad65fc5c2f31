#include "binalib.h"

#include <QStringList>

namespace bina {

namespace {

QString datetimeZzzFormat()
{
    return QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz");
}

template <typename T>
QJsonValue plainJsonval(const T& val)
{
    return QJsonValue(val);
}

QJsonValue textJsonval(const std::string& val)
{
    return QJsonValue(QString::fromStdString(val));
}

// How one element type travels: the JSON type it must have, the conversion
// once it passed that test, and the way back. The test and the conversion
// stay apart, so 3.5 passes as a number and then reads 0 as an int.
template <typename T, bool (QJsonValue::*isType)() const, T (*read)(const QJsonValue&),
          QJsonValue (*write)(const T&)>
struct Item
{
    using Type = T;
    static bool accepts(const QJsonValue& val) { return (val.*isType)(); }
    static T decode(const QJsonValue& val) { return read(val); }
    static QJsonValue encode(const T& val) { return write(val); }
};

using TextItem = Item<std::string, &QJsonValue::isString, jsonval2str, textJsonval>;
using IntItem = Item<int, &QJsonValue::isDouble, jsonval2int, plainJsonval<int>>;
using DoubleItem = Item<double, &QJsonValue::isDouble, jsonval2double, plainJsonval<double>>;
using BoolItem = Item<bool, &QJsonValue::isBool, jsonval2bool, plainJsonval<bool>>;

struct TextKey
{
    using Type = std::string;
    static Type decode(const QString& val) { return val.toStdString(); }
    static QString encode(const Type& val) { return QString::fromStdString(val); }
};

// The key's conversion is not checked: a key that is no number reads 0.
struct LongLongKey
{
    using Type = long long;
    static Type decode(const QString& val) { return val.toLongLong(nullptr, 10); }
    static QString encode(Type val) { return QString::number(val, 10); }
};

template <typename ItemT>
std::vector<typename ItemT::Type> jsonval2vector(const QJsonValue& val)
{
    std::vector<typename ItemT::Type> vecRet;
    const QJsonArray jsonArray = val.toArray();
    for (int i = 0; i < jsonArray.size(); ++i) {
        const QJsonValue jsonValueArrayItem = jsonArray.at(i);
        if (ItemT::accepts(jsonValueArrayItem))
            vecRet.push_back(ItemT::decode(jsonValueArrayItem));
    }
    return vecRet;
}

template <typename KeyT, typename ItemT>
std::map<typename KeyT::Type, typename ItemT::Type> jsonval2map(const QJsonValue& val)
{
    std::map<typename KeyT::Type, typename ItemT::Type> mapRet;
    const QJsonObject jsonObject = val.toObject();
    // keys() is sorted as text, so of keys meeting on one native key the last wins.
    const QStringList keys = jsonObject.keys();
    for (const QString& key : keys) {
        const QJsonValue jsonValueItem = jsonObject.value(key);
        if (ItemT::accepts(jsonValueItem))
            mapRet[KeyT::decode(key)] = ItemT::decode(jsonValueItem);
    }
    return mapRet;
}

template <typename ItemT>
QJsonArray vector2jsonarray(const std::vector<typename ItemT::Type>& val)
{
    QJsonArray jsonArray;
    for (const auto& item : val)
        jsonArray.push_back(ItemT::encode(item));
    return jsonArray;
}

template <typename KeyT, typename ItemT>
QJsonObject map2jsonobj(const std::map<typename KeyT::Type, typename ItemT::Type>& val)
{
    QJsonObject jsonObject;
    for (const auto& entry : val)
        jsonObject.insert(KeyT::encode(entry.first), ItemT::encode(entry.second));
    return jsonObject;
}

} // namespace

std::string jsonval2str(const QJsonValue& val)
{
    return val.toString(QString()).toStdString();
}

int jsonval2int(const QJsonValue& val)
{
    return val.toInt(0);
}

unsigned char jsonval2uc(const QJsonValue& val)
{
    return static_cast<unsigned char>(jsonval2int(val));
}

unsigned short jsonval2us(const QJsonValue& val)
{
    return static_cast<unsigned short>(jsonval2int(val));
}

unsigned int jsonval2ui(const QJsonValue& val)
{
    return static_cast<unsigned int>(jsonval2int(val));
}

long long jsonval2ll(const QJsonValue& val)
{
    return val.toString(QString()).toLongLong(nullptr, 10);
}

unsigned long long jsonval2ull(const QJsonValue& val)
{
    return val.toString(QString()).toULongLong(nullptr, 10);
}

double jsonval2double(const QJsonValue& val)
{
    return val.toDouble(0.0);
}

bool jsonval2bool(const QJsonValue& val)
{
    return val.toBool(false);
}

std::vector<std::string> jsonval2stringvector(const QJsonValue& val) { return jsonval2vector<TextItem>(val); }
std::vector<int> jsonval2intvector(const QJsonValue& val) { return jsonval2vector<IntItem>(val); }
std::vector<double> jsonval2doublevector(const QJsonValue& val) { return jsonval2vector<DoubleItem>(val); }
std::vector<bool> jsonval2boolvector(const QJsonValue& val) { return jsonval2vector<BoolItem>(val); }

std::map<std::string, std::string> jsonval2sstringmap(const QJsonValue& val) { return jsonval2map<TextKey, TextItem>(val); }
std::map<std::string, int> jsonval2sintmap(const QJsonValue& val) { return jsonval2map<TextKey, IntItem>(val); }
std::map<std::string, double> jsonval2sdoublemap(const QJsonValue& val) { return jsonval2map<TextKey, DoubleItem>(val); }
std::map<std::string, bool> jsonval2sboolmap(const QJsonValue& val) { return jsonval2map<TextKey, BoolItem>(val); }

std::map<long long, std::string> jsonval2llstringmap(const QJsonValue& val) { return jsonval2map<LongLongKey, TextItem>(val); }
std::map<long long, int> jsonval2llintmap(const QJsonValue& val) { return jsonval2map<LongLongKey, IntItem>(val); }
std::map<long long, double> jsonval2lldoublemap(const QJsonValue& val) { return jsonval2map<LongLongKey, DoubleItem>(val); }
std::map<long long, bool> jsonval2llboolmap(const QJsonValue& val) { return jsonval2map<LongLongKey, BoolItem>(val); }

QDateTime jsonval2DatetimeZzzObj(const QJsonValue& val)
{
    try {
        return QDateTime::fromString(val.toString(QString()), datetimeZzzFormat());
    } catch (...) {
        return QDateTime();
    }
}

int num2jsonval(int val)
{
    return val;
}

QString num2jsonval(long long val)
{
    return QString::number(val, 10);
}

QString num2jsonval(unsigned long long val)
{
    return QString::number(val, 10);
}

float num2jsonval(float val)
{
    return val;
}

double num2jsonval(double val)
{
    return val;
}

QString str2jsonval(const std::string& val)
{
    return QString::fromUtf8(val.c_str());
}

QJsonArray stringvec2jsonarray(const std::vector<std::string>& val) { return vector2jsonarray<TextItem>(val); }
QJsonArray intvec2jsonarray(const std::vector<int>& val) { return vector2jsonarray<IntItem>(val); }
QJsonArray doublevec2jsonarray(const std::vector<double>& val) { return vector2jsonarray<DoubleItem>(val); }
QJsonArray boolvec2jsonarray(const std::vector<bool>& val) { return vector2jsonarray<BoolItem>(val); }

QJsonObject sstringmap2jsonobj(const std::map<std::string, std::string>& val) { return map2jsonobj<TextKey, TextItem>(val); }
QJsonObject sintmap2jsonobj(const std::map<std::string, int>& val) { return map2jsonobj<TextKey, IntItem>(val); }
QJsonObject sdoublemap2jsonobj(const std::map<std::string, double>& val) { return map2jsonobj<TextKey, DoubleItem>(val); }
QJsonObject sboolmap2jsonobj(const std::map<std::string, bool>& val) { return map2jsonobj<TextKey, BoolItem>(val); }

QJsonObject llstringmap2jsonobj(const std::map<long long, std::string>& val) { return map2jsonobj<LongLongKey, TextItem>(val); }
QJsonObject llintmap2jsonobj(const std::map<long long, int>& val) { return map2jsonobj<LongLongKey, IntItem>(val); }
QJsonObject lldoublemap2jsonobj(const std::map<long long, double>& val) { return map2jsonobj<LongLongKey, DoubleItem>(val); }
QJsonObject llboolmap2jsonobj(const std::map<long long, bool>& val) { return map2jsonobj<LongLongKey, BoolItem>(val); }

QString datetimeZzzObj2jsonobj(const QDateTime& val)
{
    // An invalid val gives empty text.
    return val.toString(datetimeZzzFormat());
}

} // namespace bina
