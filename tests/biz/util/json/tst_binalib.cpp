#include "binalib.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QtTest>

#include <limits>
#include <map>
#include <time.h>

namespace {

// A JSON text as one value; wrapping in brackets lets scalars through.
QJsonValue jsonValueOf(const QByteArray& baJson)
{
    return QJsonDocument::fromJson("[" + baJson + "]").array().at(0);
}

QByteArray compactJson(const QJsonValue& val)
{
    const QByteArray baArray = QJsonDocument(QJsonArray{val}).toJson(QJsonDocument::Compact);
    return baArray.mid(1, baArray.size() - 2);
}

template <typename T>
QString rendered(const T& val)
{
    return QVariant::fromValue(val).toString();
}

QString rendered(const std::string& val)
{
    return QString::fromStdString(val);
}

template <typename T>
QStringList rendered(const std::vector<T>& val)
{
    QStringList listRet;
    for (const auto& item : val)
        listRet << rendered(item);
    return listRet;
}

template <typename K, typename V>
QStringList rendered(const std::map<K, V>& val)
{
    QStringList listRet;
    for (const auto& entry : val)
        listRet << rendered(entry.first) + "=" + rendered(entry.second);
    return listRet;
}

using ContainerDecoder = QStringList (*)(const QJsonValue&);

// Every container decoder by its name, its result as "value" or "key=value" in native order.
const std::map<QString, ContainerDecoder>& containerDecoders()
{
    static const std::map<QString, ContainerDecoder> decoders = {
        {"stringvector", [](const QJsonValue& val) { return rendered(bina::jsonval2stringvector(val)); }},
        {"intvector", [](const QJsonValue& val) { return rendered(bina::jsonval2intvector(val)); }},
        {"doublevector", [](const QJsonValue& val) { return rendered(bina::jsonval2doublevector(val)); }},
        {"boolvector", [](const QJsonValue& val) { return rendered(bina::jsonval2boolvector(val)); }},
        {"sstringmap", [](const QJsonValue& val) { return rendered(bina::jsonval2sstringmap(val)); }},
        {"sintmap", [](const QJsonValue& val) { return rendered(bina::jsonval2sintmap(val)); }},
        {"sdoublemap", [](const QJsonValue& val) { return rendered(bina::jsonval2sdoublemap(val)); }},
        {"sboolmap", [](const QJsonValue& val) { return rendered(bina::jsonval2sboolmap(val)); }},
        {"llstringmap", [](const QJsonValue& val) { return rendered(bina::jsonval2llstringmap(val)); }},
        {"llintmap", [](const QJsonValue& val) { return rendered(bina::jsonval2llintmap(val)); }},
        {"lldoublemap", [](const QJsonValue& val) { return rendered(bina::jsonval2lldoublemap(val)); }},
        {"llboolmap", [](const QJsonValue& val) { return rendered(bina::jsonval2llboolmap(val)); }},
    };
    return decoders;
}

} // namespace

class tst_Binalib : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void longLongRoundTrip_data();
    void longLongRoundTrip();
    void unsignedLongLongRoundTrip_data();
    void unsignedLongLongRoundTrip();
    void decodesSixtyFourBitText_data();
    void decodesSixtyFourBitText();
    void cutsIntegers_data();
    void cutsIntegers();

    void decodesContainers_data();
    void decodesContainers();
    void encodesContainers_data();
    void encodesContainers();
    void strStopsAtNulContainersDoNot_data();
    void strStopsAtNulContainersDoNot();

    void datetimeRoundTrip_data();
    void datetimeRoundTrip();
    void datetimeRejects_data();
    void datetimeRejects();
    void invalidDatetimeEncodesEmpty();
};

void tst_Binalib::initTestCase()
{
    // A zone away from UTC, with summer time, so a round trip through UTC would show.
    qputenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3");
    tzset();
}

void tst_Binalib::longLongRoundTrip_data()
{
    QTest::addColumn<qlonglong>("value");
    QTest::addColumn<QString>("text");
    QTest::newRow("largest") << std::numeric_limits<qlonglong>::max() << "9223372036854775807";
    QTest::newRow("smallest") << std::numeric_limits<qlonglong>::min() << "-9223372036854775808";
    QTest::newRow("beyond double precision") << 9007199254740993LL << "9007199254740993";
    QTest::newRow("minus one") << -1LL << "-1";
}

void tst_Binalib::longLongRoundTrip()
{
    QFETCH(qlonglong, value);
    QFETCH(QString, text);
    const QString strEncoded = bina::num2jsonval(static_cast<long long>(value));
    QCOMPARE(strEncoded, text);
    QCOMPARE(bina::jsonval2ll(QJsonValue(strEncoded)), static_cast<long long>(value));
}

void tst_Binalib::unsignedLongLongRoundTrip_data()
{
    QTest::addColumn<qulonglong>("value");
    QTest::addColumn<QString>("text");
    QTest::newRow("largest") << std::numeric_limits<qulonglong>::max() << "18446744073709551615";
    QTest::newRow("above long long") << 9223372036854775808ULL << "9223372036854775808";
    QTest::newRow("zero") << 0ULL << "0";
}

void tst_Binalib::unsignedLongLongRoundTrip()
{
    QFETCH(qulonglong, value);
    QFETCH(QString, text);
    const QString strEncoded = bina::num2jsonval(static_cast<unsigned long long>(value));
    QCOMPARE(strEncoded, text);
    QCOMPARE(bina::jsonval2ull(QJsonValue(strEncoded)), static_cast<unsigned long long>(value));
}

void tst_Binalib::decodesSixtyFourBitText_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<qlonglong>("ll");
    QTest::addColumn<qulonglong>("ull");
    QTest::newRow("digits in a string") << QByteArray(R"("42")") << 42LL << 42ULL;
    QTest::newRow("JSON number is not read") << QByteArray("42") << 0LL << 0ULL;
    QTest::newRow("minus sign") << QByteArray(R"("-5")") << -5LL << 0ULL;
    QTest::newRow("too many digits for both") << QByteArray(R"("184467440737095516150")") << 0LL << 0ULL;
    QTest::newRow("one past unsigned") << QByteArray(R"("18446744073709551616")") << 0LL << 0ULL;
    QTest::newRow("one past signed") << QByteArray(R"("9223372036854775808")") << 0LL << 9223372036854775808ULL;
    QTest::newRow("trailing letters") << QByteArray(R"("12abc")") << 0LL << 0ULL;
    QTest::newRow("hexadecimal") << QByteArray(R"("0x10")") << 0LL << 0ULL;
    QTest::newRow("empty text") << QByteArray(R"("")") << 0LL << 0ULL;
    QTest::newRow("null") << QByteArray("null") << 0LL << 0ULL;
}

void tst_Binalib::decodesSixtyFourBitText()
{
    QFETCH(QByteArray, json);
    QFETCH(qlonglong, ll);
    QFETCH(qulonglong, ull);
    const QJsonValue val = jsonValueOf(json);
    QCOMPARE(bina::jsonval2ll(val), static_cast<long long>(ll));
    QCOMPARE(bina::jsonval2ull(val), static_cast<unsigned long long>(ull));
}

void tst_Binalib::cutsIntegers_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<uint>("uc");
    QTest::addColumn<uint>("us");
    QTest::addColumn<uint>("ui");
    QTest::newRow("300 wraps in a byte") << QByteArray("300") << 44u << 300u << 300u;
    QTest::newRow("70000 wraps in 16 bits") << QByteArray("70000") << 112u << 4464u << 70000u;
    QTest::newRow("-1 is all ones") << QByteArray("-1") << 255u << 65535u << 4294967295u;
    QTest::newRow("above int reads 0") << QByteArray("3000000000") << 0u << 0u << 0u;
    QTest::newRow("whole double") << QByteArray("12.0") << 12u << 12u << 12u;
    QTest::newRow("fraction reads 0") << QByteArray("3.5") << 0u << 0u << 0u;
    QTest::newRow("digits in a string read 0") << QByteArray(R"("7")") << 0u << 0u << 0u;
    QTest::newRow("true reads 0") << QByteArray("true") << 0u << 0u << 0u;
}

void tst_Binalib::cutsIntegers()
{
    QFETCH(QByteArray, json);
    QFETCH(uint, uc);
    QFETCH(uint, us);
    QFETCH(uint, ui);
    const QJsonValue val = jsonValueOf(json);
    QCOMPARE(uint(bina::jsonval2uc(val)), uc);
    QCOMPARE(uint(bina::jsonval2us(val)), us);
    QCOMPARE(bina::jsonval2ui(val), ui);
}

void tst_Binalib::decodesContainers_data()
{
    QTest::addColumn<QString>("decoder");
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QStringList>("expected");

    const QByteArray baMixed = R"([1,"s",3.5,true,4])";
    QTest::newRow("mixed array as ints") << "intvector" << baMixed << QStringList{"1", "0", "4"};
    QTest::newRow("mixed array as doubles") << "doublevector" << baMixed << QStringList{"1", "3.5", "4"};
    QTest::newRow("mixed array as strings") << "stringvector" << baMixed << QStringList{"s"};
    QTest::newRow("mixed array as bools") << "boolvector" << baMixed << QStringList{"true"};
    QTest::newRow("nested containers skipped") << "intvector" << QByteArray("[[1],{},null,2]") << QStringList{"2"};

    const QByteArray baLetterKeys = R"({"12":"a","abc":"b","xyz":"c"})";
    QTest::newRow("keys no number land on 0, last wins")
        << "llstringmap" << baLetterKeys << QStringList{"0=c", "12=a"};
    QTest::newRow("skipped entry overwrites nothing")
        << "llstringmap" << QByteArray(R"({"12":"a","abc":"b","xyz":3})") << QStringList{"0=b", "12=a"};
    QTest::newRow("007 and 7 meet, 7 wins") << "llintmap" << QByteArray(R"({"007":1,"7":2})") << QStringList{"7=2"};
    QTest::newRow("7 wins written first") << "llintmap" << QByteArray(R"({"7":2,"007":1})") << QStringList{"7=2"};
    QTest::newRow("7 skipped, 007 stays") << "llintmap" << QByteArray(R"({"007":1,"7":"x"})") << QStringList{"7=1"};
    QTest::newRow("extreme keys")
        << "llboolmap" << QByteArray(R"({"-9223372036854775808":true,"9223372036854775807":false})")
        << QStringList{"-9223372036854775808=true", "9223372036854775807=false"};
    QTest::newRow("key past long long lands on 0")
        << "lldoublemap" << QByteArray(R"({"9223372036854775808":1.5})") << QStringList{"0=1.5"};
    QTest::newRow("text keys stay apart") << "sintmap" << QByteArray(R"({"007":1,"7":2})") << QStringList{"007=1", "7=2"};
    QTest::newRow("refused int stays as 0") << "sintmap" << QByteArray(R"({"a":3.5,"b":"1"})") << QStringList{"a=0"};
    QTest::newRow("string true is no bool") << "sboolmap" << QByteArray(R"({"a":"true","b":false})") << QStringList{"b=false"};
    QTest::newRow("UTF-8 keys and values")
        << "sstringmap" << QByteArray(R"({"名":"值","n":1})") << QStringList{QString::fromUtf8("名=值")};

    // Every container decoder: empty containers and values of another JSON type give nothing.
    const QList<QByteArray> listNotContainers = {"null", "true", "0", R"("[1]")"};
    for (const auto& entry : containerDecoders()) {
        const QString& strDecoder = entry.first;
        const bool bArray = strDecoder.endsWith("vector");
        QTest::addRow("%s of empty", qPrintable(strDecoder)) << strDecoder << QByteArray(bArray ? "[]" : "{}") << QStringList();
        QTest::addRow("%s of the other container", qPrintable(strDecoder))
            << strDecoder << QByteArray(bArray ? R"({"0":1,"1":"s","2":true})" : R"([1,"s",true])") << QStringList();
        for (const QByteArray& baJson : listNotContainers)
            QTest::addRow("%s of %s", qPrintable(strDecoder), baJson.constData()) << strDecoder << baJson << QStringList();
    }
}

void tst_Binalib::decodesContainers()
{
    QFETCH(QString, decoder);
    QFETCH(QByteArray, json);
    QFETCH(QStringList, expected);
    const QJsonValue val = jsonValueOf(json);
    QVERIFY2(!val.isUndefined(), json.constData());
    QCOMPARE(containerDecoders().at(decoder)(val), expected);
}

void tst_Binalib::encodesContainers_data()
{
    QTest::addColumn<QJsonValue>("encoded");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("empty string vector") << QJsonValue(bina::stringvec2jsonarray({})) << QByteArray("[]");
    QTest::newRow("empty int vector") << QJsonValue(bina::intvec2jsonarray({})) << QByteArray("[]");
    QTest::newRow("empty double vector") << QJsonValue(bina::doublevec2jsonarray({})) << QByteArray("[]");
    QTest::newRow("empty bool vector") << QJsonValue(bina::boolvec2jsonarray({})) << QByteArray("[]");
    QTest::newRow("empty s string map") << QJsonValue(bina::sstringmap2jsonobj({})) << QByteArray("{}");
    QTest::newRow("empty s int map") << QJsonValue(bina::sintmap2jsonobj({})) << QByteArray("{}");
    QTest::newRow("empty s double map") << QJsonValue(bina::sdoublemap2jsonobj({})) << QByteArray("{}");
    QTest::newRow("empty s bool map") << QJsonValue(bina::sboolmap2jsonobj({})) << QByteArray("{}");
    QTest::newRow("empty ll string map") << QJsonValue(bina::llstringmap2jsonobj({})) << QByteArray("{}");
    QTest::newRow("empty ll int map") << QJsonValue(bina::llintmap2jsonobj({})) << QByteArray("{}");
    QTest::newRow("empty ll double map") << QJsonValue(bina::lldoublemap2jsonobj({})) << QByteArray("{}");
    QTest::newRow("empty ll bool map") << QJsonValue(bina::llboolmap2jsonobj({})) << QByteArray("{}");

    QTest::newRow("vector order kept") << QJsonValue(bina::intvec2jsonarray({3, -1, 2})) << QByteArray("[3,-1,2]");
    QTest::newRow("bools") << QJsonValue(bina::boolvec2jsonarray({true, false})) << QByteArray("[true,false]");
    QTest::newRow("doubles") << QJsonValue(bina::doublevec2jsonarray({0.5, -2})) << QByteArray("[0.5,-2]");
    QTest::newRow("UTF-8 strings")
        << QJsonValue(bina::stringvec2jsonarray({"中文", ""})) << QString::fromUtf8(R"(["中文",""])").toUtf8();
    QTest::newRow("ll keys in text order, 10 before 9")
        << QJsonValue(bina::llstringmap2jsonobj({{9, "a"}, {10, "b"}, {-1, "c"}}))
        << QByteArray(R"({"-1":"c","10":"b","9":"a"})");
    QTest::newRow("s map values") << QJsonValue(bina::sdoublemap2jsonobj({{"x", 1.5}})) << QByteArray(R"({"x":1.5})");
    QTest::newRow("ll bool map") << QJsonValue(bina::llboolmap2jsonobj({{7, true}})) << QByteArray(R"({"7":true})");
}

void tst_Binalib::encodesContainers()
{
    QFETCH(QJsonValue, encoded);
    QFETCH(QByteArray, expected);
    QCOMPARE(compactJson(encoded), expected);
}

void tst_Binalib::strStopsAtNulContainersDoNot_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("strText");
    QTest::newRow("NUL in the middle") << QByteArray("ab\0cd", 5) << QString("ab");
    QTest::newRow("NUL first") << QByteArray("\0cd", 3) << QString();
    QTest::newRow("NUL after UTF-8") << QByteArray("\xe4\xb8\xad\0\xe6\x96\x87", 7) << QString::fromUtf8("中");
    QTest::newRow("no NUL") << QByteArray("abc") << QString("abc");
}

void tst_Binalib::strStopsAtNulContainersDoNot()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, strText);
    const std::string text(bytes.constData(), static_cast<size_t>(bytes.size()));
    const QString strFull = QString::fromUtf8(bytes.constData(), bytes.size());

    QCOMPARE(bina::str2jsonval(text), strText);
    QCOMPARE(bina::stringvec2jsonarray({text}).at(0).toString(), strFull);
    const QJsonObject jsonObject = bina::sstringmap2jsonobj({{text, text}});
    QCOMPARE(jsonObject.keys(), QStringList{strFull});
    QCOMPARE(jsonObject.value(strFull).toString(), strFull);
    // And the whole text comes back from the array.
    QCOMPARE(bina::jsonval2stringvector(bina::stringvec2jsonarray({text})), std::vector<std::string>{text});
}

void tst_Binalib::datetimeRoundTrip_data()
{
    QTest::addColumn<QDateTime>("dateTime");
    QTest::addColumn<QString>("text");
    QTest::newRow("summer afternoon")
        << QDateTime(QDate(2024, 7, 15), QTime(13, 45, 12, 345), Qt::LocalTime) << "2024-07-15 13:45:12.345";
    QTest::newRow("winter, one millisecond")
        << QDateTime(QDate(2025, 1, 1), QTime(0, 0, 0, 1), Qt::LocalTime) << "2025-01-01 00:00:00.001";
    QTest::newRow("last millisecond of a leap day")
        << QDateTime(QDate(2024, 2, 29), QTime(23, 59, 59, 999), Qt::LocalTime) << "2024-02-29 23:59:59.999";
    const QDateTime dtNow = QDateTime::currentDateTime();
    QTest::newRow("now") << dtNow << dtNow.toString("yyyy-MM-dd HH:mm:ss.zzz");
}

void tst_Binalib::datetimeRoundTrip()
{
    QFETCH(QDateTime, dateTime);
    QFETCH(QString, text);
    const QString strEncoded = bina::datetimeZzzObj2jsonobj(dateTime);
    QCOMPARE(strEncoded, text);
    const QDateTime dtDecoded = bina::jsonval2DatetimeZzzObj(QJsonValue(strEncoded));
    QCOMPARE(dtDecoded, dateTime);
    QCOMPARE(dtDecoded.timeSpec(), Qt::LocalTime);
    QCOMPARE(dtDecoded.time().msec(), dateTime.time().msec());
}

void tst_Binalib::datetimeRejects_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::newRow("no milliseconds") << QByteArray(R"("2024-07-15 13:45:12")");
    QTest::newRow("T between date and time") << QByteArray(R"("2024-07-15T13:45:12.345")");
    QTest::newRow("with a zone") << QByteArray(R"("2024-07-15 13:45:12.345Z")");
    QTest::newRow("February 30") << QByteArray(R"("2024-02-30 00:00:00.000")");
    QTest::newRow("empty text") << QByteArray(R"("")");
    QTest::newRow("number") << QByteArray("20240715134512345");
    QTest::newRow("null") << QByteArray("null");
    QTest::newRow("object") << QByteArray(R"({"date":"2024-07-15 13:45:12.345"})");
}

void tst_Binalib::datetimeRejects()
{
    QFETCH(QByteArray, json);
    QVERIFY(!bina::jsonval2DatetimeZzzObj(jsonValueOf(json)).isValid());
}

void tst_Binalib::invalidDatetimeEncodesEmpty()
{
    QCOMPARE(bina::datetimeZzzObj2jsonobj(QDateTime()), QString());
    QCOMPARE(bina::datetimeZzzObj2jsonobj(QDateTime(QDate(2024, 2, 30), QTime(0, 0))), QString());
}

QTEST_GUILESS_MAIN(tst_Binalib)
#include "tst_binalib.moc"
