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

template <typename T>
QString rendered(const T& val)
{
    if constexpr (std::is_same_v<T, std::string>)
        return QString::fromStdString(val);
    else if constexpr (std::is_same_v<T, QDateTime>)
        return val.isValid() ? val.toString("yyyy-MM-dd HH:mm:ss.zzz t") : QString();
    else if constexpr (std::is_integral_v<T> && !std::is_same_v<T, bool>)
        return QString::number(val);
    else
        return QVariant::fromValue(val).toString();
}

// A decoded value as a list of "value" or "key=value" items in native order.
template <typename T>
QStringList renderedAll(const T& val)
{
    QStringList listRet;
    if constexpr (std::is_same_v<T, std::vector<typename T::value_type>>) {
        for (const auto& item : val)
            listRet << rendered(static_cast<typename T::value_type>(item));
    } else {
        for (const auto& item : val)
            listRet << rendered(item.first) + "=" + rendered(item.second);
    }
    return listRet;
}

#define TAVELIN_DECODER(name) {#name, [](const QJsonValue& val) { return renderedAll(bina::jsonval2##name(val)); }}
#define TAVELIN_SCALAR(name) {#name, [](const QJsonValue& val) { return QStringList{rendered(bina::jsonval2##name(val))}; }}
const std::map<QString, QStringList (*)(const QJsonValue&)> g_decoders = {
    TAVELIN_DECODER(stringvector), TAVELIN_DECODER(intvector), TAVELIN_DECODER(doublevector),
    TAVELIN_DECODER(boolvector), TAVELIN_DECODER(sstringmap), TAVELIN_DECODER(sintmap),
    TAVELIN_DECODER(sdoublemap), TAVELIN_DECODER(sboolmap), TAVELIN_DECODER(llstringmap),
    TAVELIN_DECODER(llintmap), TAVELIN_DECODER(lldoublemap), TAVELIN_DECODER(llboolmap),
    TAVELIN_SCALAR(uc), TAVELIN_SCALAR(us), TAVELIN_SCALAR(ui), TAVELIN_SCALAR(ll), TAVELIN_SCALAR(ull),
    TAVELIN_SCALAR(DatetimeZzzObj),
};

} // namespace

class tst_Binalib : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        // A zone away from UTC, with summer time, so a round trip through UTC would show.
        qputenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3");
        tzset();
    }

    void decodes_data()
    {
        QTest::addColumn<QString>("decoder");
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QStringList>("expected");

        QTest::newRow("ll: digits in a string") << "ll" << QByteArray(R"("-9223372036854775808")") << QStringList{"-9223372036854775808"};
        QTest::newRow("ll: a JSON number is not read") << "ll" << QByteArray("42") << QStringList{"0"};
        QTest::newRow("ll: trailing letters") << "ll" << QByteArray(R"("12abc")") << QStringList{"0"};
        QTest::newRow("ll: hexadecimal") << "ll" << QByteArray(R"("0x10")") << QStringList{"0"};
        QTest::newRow("ull: beyond long long") << "ull" << QByteArray(R"("18446744073709551615")") << QStringList{"18446744073709551615"};
        QTest::newRow("ull: minus sign") << "ull" << QByteArray(R"("-5")") << QStringList{"0"};
        QTest::newRow("ull: one past the largest") << "ull" << QByteArray(R"("18446744073709551616")") << QStringList{"0"};
        QTest::newRow("uc: 300 wraps in a byte") << "uc" << QByteArray("300") << QStringList{"44"};
        QTest::newRow("us: -1 is all ones") << "us" << QByteArray("-1") << QStringList{"65535"};
        QTest::newRow("ui: -1 is all ones") << "ui" << QByteArray("-1") << QStringList{"4294967295"};
        QTest::newRow("ui: above int reads 0") << "ui" << QByteArray("3000000000") << QStringList{"0"};
        QTest::newRow("ui: a fraction reads 0") << "ui" << QByteArray("3.5") << QStringList{"0"};
        QTest::newRow("ui: digits in a string read 0") << "ui" << QByteArray(R"("7")") << QStringList{"0"};

        const QByteArray baMixed = R"([1,"s",3.5,true,4])";
        QTest::newRow("mixed array as ints") << "intvector" << baMixed << QStringList{"1", "0", "4"};
        QTest::newRow("mixed array as doubles") << "doublevector" << baMixed << QStringList{"1", "3.5", "4"};
        QTest::newRow("mixed array as strings") << "stringvector" << baMixed << QStringList{"s"};
        QTest::newRow("mixed array as bools") << "boolvector" << baMixed << QStringList{"true"};
        QTest::newRow("keys no number land on 0, last wins")
            << "llstringmap" << QByteArray(R"({"12":"a","abc":"b","xyz":"c"})") << QStringList{"0=c", "12=a"};
        QTest::newRow("skipped entry overwrites nothing")
            << "llstringmap" << QByteArray(R"({"12":"a","abc":"b","xyz":3})") << QStringList{"0=b", "12=a"};
        QTest::newRow("007 and 7 meet, 7 wins") << "llintmap" << QByteArray(R"({"7":2,"007":1})") << QStringList{"7=2"};
        QTest::newRow("key past long long lands on 0") << "lldoublemap" << QByteArray(R"({"9223372036854775808":1.5})") << QStringList{"0=1.5"};
        QTest::newRow("extreme keys") << "llboolmap" << QByteArray(R"({"-9223372036854775808":true,"9223372036854775807":false})")
                                      << QStringList{"-9223372036854775808=true", "9223372036854775807=false"};
        QTest::newRow("text keys stay apart") << "sintmap" << QByteArray(R"({"007":1,"7":2})") << QStringList{"007=1", "7=2"};
        QTest::newRow("refused int stays as 0") << "sintmap" << QByteArray(R"({"a":3.5,"b":"1"})") << QStringList{"a=0"};
        QTest::newRow("string true is no bool") << "sboolmap" << QByteArray(R"({"a":"true","b":false})") << QStringList{"b=false"};
        QTest::newRow("UTF-8 keys and values") << "sstringmap" << QByteArray(R"({"名":"值","n":1})") << QStringList{"名=值"};
        QTest::newRow("sdoublemap") << "sdoublemap" << QByteArray(R"({"x":-0.5})") << QStringList{"x=-0.5"};

        QTest::newRow("date-time in local time to the millisecond")
            << "DatetimeZzzObj" << QByteArray(R"("2024-07-15 13:45:12.345")") << QStringList{"2024-07-15 13:45:12.345 CEST"};
        for (const char* json : {R"("2024-07-15 13:45:12")", R"("2024-07-15 13:45:12.345Z")", R"("2024-02-30 00:00:00.000")",
                                 "20240715134512345", "null"})
            QTest::addRow("date-time refuses %s", json) << "DatetimeZzzObj" << QByteArray(json) << QStringList{""};
        // Every container decoder: empty containers and values of another JSON type give nothing.
        for (const auto& entry : g_decoders) {
            const QString& strDecoder = entry.first;
            if (!strDecoder.endsWith("vector") && !strDecoder.endsWith("map"))
                continue;
            const bool bArray = strDecoder.endsWith("vector");
            for (const QByteArray& baJson : {QByteArray(bArray ? "[]" : "{}"), QByteArray(bArray ? R"({"0":1})" : R"([1,"s",true])"),
                                             QByteArray("null"), QByteArray("0"), QByteArray(R"("[1]")")})
                QTest::addRow("%s of %s", qPrintable(strDecoder), baJson.constData()) << strDecoder << baJson << QStringList();
        }
    }

    void decodes()
    {
        QFETCH(QString, decoder);
        QFETCH(QByteArray, json);
        const QJsonValue val = jsonValueOf(json);
        QVERIFY2(!val.isUndefined(), json.constData());
        QTEST(g_decoders.at(decoder)(val), "expected");
    }

    void encodes_data()
    {
        QTest::addColumn<QJsonValue>("encoded");
        QTest::addColumn<QByteArray>("expected");
        const std::string strNul("ab\0cd", 5);
        const QDateTime dtLocal(QDate(2024, 2, 29), QTime(23, 59, 59, 999), Qt::LocalTime);
        QTest::newRow("largest long long as text") << QJsonValue(bina::num2jsonval(std::numeric_limits<long long>::max()))
                                                   << QByteArray(R"("9223372036854775807")");
        QTest::newRow("smallest long long as text") << QJsonValue(bina::num2jsonval(std::numeric_limits<long long>::min()))
                                                    << QByteArray(R"("-9223372036854775808")");
        QTest::newRow("largest unsigned as text") << QJsonValue(bina::num2jsonval(std::numeric_limits<unsigned long long>::max()))
                                                  << QByteArray(R"("18446744073709551615")");
        QTest::newRow("str stops at NUL") << QJsonValue(bina::str2jsonval(strNul)) << QByteArray(R"("ab")");
        QTest::newRow("vectors keep NUL") << QJsonValue(bina::stringvec2jsonarray({strNul, "中文"})) << QByteArray(R"(["ab\u0000cd","中文"])");
        QTest::newRow("maps keep NUL") << QJsonValue(bina::sstringmap2jsonobj({{strNul, strNul}})) << QByteArray(R"({"ab\u0000cd":"ab\u0000cd"})");
        QTest::newRow("empty vector") << QJsonValue(bina::stringvec2jsonarray({})) << QByteArray("[]");
        QTest::newRow("vector order kept") << QJsonValue(bina::intvec2jsonarray({3, -1, 2})) << QByteArray("[3,-1,2]");
        QTest::newRow("doubles") << QJsonValue(bina::doublevec2jsonarray({0.5, -2})) << QByteArray("[0.5,-2]");
        QTest::newRow("ll keys in text order, 10 before 9")
            << QJsonValue(bina::llstringmap2jsonobj({{9, "a"}, {10, "b"}, {-1, "c"}})) << QByteArray(R"({"-1":"c","10":"b","9":"a"})");
        QTest::newRow("date-time in local time") << QJsonValue(bina::datetimeZzzObj2jsonobj(dtLocal)) << QByteArray(R"("2024-02-29 23:59:59.999")");
        QTest::newRow("invalid date-time: empty text")
            << QJsonValue(bina::datetimeZzzObj2jsonobj(QDateTime(QDate(2024, 2, 30), QTime(0, 0)))) << QByteArray(R"("")");
    }

    void encodes()
    {
        QFETCH(QJsonValue, encoded);
        const QByteArray baArray = QJsonDocument(QJsonArray{encoded}).toJson(QJsonDocument::Compact);
        QTEST(baArray.mid(1, baArray.size() - 2), "expected");
    }
};

QTEST_GUILESS_MAIN(tst_Binalib)
#include "tst_binalib.moc"
