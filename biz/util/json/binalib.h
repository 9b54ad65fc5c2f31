#pragma once

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <map>
#include <string>
#include <vector>

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

// Small unsigned integers: a whole JSON number in the range of int, cut to
// the type's low bits (-1 reads all ones, 3000000000 reads 0).
unsigned char jsonval2uc(const QJsonValue& val);
unsigned short jsonval2us(const QJsonValue& val);
unsigned int jsonval2ui(const QJsonValue& val);

// 64-bit integers travel as decimal strings; a JSON number reads 0.
long long jsonval2ll(const QJsonValue& val);
unsigned long long jsonval2ull(const QJsonValue& val);

double jsonval2double(const QJsonValue& val);
bool jsonval2bool(const QJsonValue& val);

// Arrays: elements of another JSON type are skipped and leave no gap.
std::vector<std::string> jsonval2stringvector(const QJsonValue& val);
std::vector<int> jsonval2intvector(const QJsonValue& val);
std::vector<double> jsonval2doublevector(const QJsonValue& val);
std::vector<bool> jsonval2boolvector(const QJsonValue& val);

// Objects with text keys: entries whose value is of another JSON type are skipped.
std::map<std::string, std::string> jsonval2sstringmap(const QJsonValue& val);
std::map<std::string, int> jsonval2sintmap(const QJsonValue& val);
std::map<std::string, double> jsonval2sdoublemap(const QJsonValue& val);
std::map<std::string, bool> jsonval2sboolmap(const QJsonValue& val);

// Objects with decimal keys: a key that is no number lands on 0, and of keys
// meeting on one number the last in text order wins.
std::map<long long, std::string> jsonval2llstringmap(const QJsonValue& val);
std::map<long long, int> jsonval2llintmap(const QJsonValue& val);
std::map<long long, double> jsonval2lldoublemap(const QJsonValue& val);
std::map<long long, bool> jsonval2llboolmap(const QJsonValue& val);

/// A local time written "yyyy-MM-dd HH:mm:ss.zzz"; anything else is invalid.
QDateTime jsonval2DatetimeZzzObj(const QJsonValue& val);

// Scalar encoders give what the caller builds a QJsonValue from.
int num2jsonval(int val);
QString num2jsonval(long long val);
QString num2jsonval(unsigned long long val);
float num2jsonval(float val);
double num2jsonval(double val);
/// Ends at the first NUL byte, unlike the container encoders.
QString str2jsonval(const std::string& val);

QJsonArray stringvec2jsonarray(const std::vector<std::string>& val);
QJsonArray intvec2jsonarray(const std::vector<int>& val);
QJsonArray doublevec2jsonarray(const std::vector<double>& val);
QJsonArray boolvec2jsonarray(const std::vector<bool>& val);

QJsonObject sstringmap2jsonobj(const std::map<std::string, std::string>& val);
QJsonObject sintmap2jsonobj(const std::map<std::string, int>& val);
QJsonObject sdoublemap2jsonobj(const std::map<std::string, double>& val);
QJsonObject sboolmap2jsonobj(const std::map<std::string, bool>& val);

// QJsonObject sorts keys as text, so 10 comes out before 9.
QJsonObject llstringmap2jsonobj(const std::map<long long, std::string>& val);
QJsonObject llintmap2jsonobj(const std::map<long long, int>& val);
QJsonObject lldoublemap2jsonobj(const std::map<long long, double>& val);
QJsonObject llboolmap2jsonobj(const std::map<long long, bool>& val);

/// Plain text in the decoder's format, empty for an invalid val.
QString datetimeZzzObj2jsonobj(const QDateTime& val);

} // namespace bina
