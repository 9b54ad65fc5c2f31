#include "mainwindow.h"
#include "testsupport.h"

#include <QBuffer>
#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QTemporaryDir>
#include <QUuid>
#include <QtTest>

#include <memory>

class tst_DPageBaseInfo : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void labelText_data();
    void labelText();
    void icon_data();
    void icon();
    void nonSquareIconFillsTheBox();
    void defaultLocation_data();
    void defaultLocation();
    void noManifest();
    void progressRow();

private:
    std::unique_ptr<MainWindow> buildWizard();
    template <typename T>
    T* child(const char* name) const;

    QTemporaryDir tmpDir;
    std::unique_ptr<MainWindow> wizard;
};

namespace {

TAppPackInfo& packInfo()
{
    return *DTavelinGuiConfig::getInstance().getAppPackInfo();
}

QImage asArgb(const QPixmap& pixmap)
{
    return pixmap.toImage().convertToFormat(QImage::Format_ARGB32);
}

QImage fallbackIcon()
{
    return asArgb(QPixmap(QStringLiteral(":/tavelin/images/none_app_icon.png")));
}

QByteArray pngOf(const QSize& size, const QColor& color)
{
    QImage image(size, QImage::Format_ARGB32);
    image.fill(color);
    QByteArray baPng;
    QBuffer buffer(&baPng);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return baPng;
}

} // namespace

void tst_DPageBaseInfo::initTestCase()
{
    QVERIFY(tmpDir.isValid());
    qputenv("HOME", tmpDir.path().toLocal8Bit());
    QVERIFY(!fallbackIcon().isNull());
}

// The configuration is one per process: every case starts from an empty record.
void tst_DPageBaseInfo::init()
{
    wizard.reset();
    packInfo() = TAppPackInfo();
    DTavelinGuiConfig::getInstance().setEnvAppDir(tmpDir.path());
}

std::unique_ptr<MainWindow> tst_DPageBaseInfo::buildWizard()
{
    auto win = std::make_unique<MainWindow>();
    win->init();
    return win;
}

template <typename T>
T* tst_DPageBaseInfo::child(const char* name) const
{
    T* widget = wizard->findChild<T*>(QLatin1String(name));
    if (!widget)
        qFatal("no widget named %s", name);
    return widget;
}

void tst_DPageBaseInfo::labelText_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("label");
    QTest::addColumn<QString>("expected");

    const QString strChs = QStringLiteral("演示程序");
    QTest::newRow("Chinese name") << "nameChs" << strChs << "labelAppNameChs" << strChs;
    QTest::newRow("English name") << "nameEng" << "Demo" << "labelAppNameEng" << "Demo";
    QTest::newRow("version") << "version" << "2.3.4" << "labelAppVersion" << "2.3.4";
    QTest::newRow("publisher stands alone") << "publisher" << "ACME" << "labelAppPublisher" << "ACME";
    QTest::newRow("website stands alone") << "website" << "https://example.org" << "labelAppWebsite"
                                          << "https://example.org";
    QTest::newRow("author stands alone") << "author" << "Li Lei" << "labelAppAuthor" << "Li Lei";
    QTest::newRow("e-mail stands alone") << "email" << "a@example.org" << "labelAppEmail" << "a@example.org";

    QTest::newRow("Chinese name missing") << "nameChs" << "" << "labelAppNameChs" << "";
    QTest::newRow("English name missing") << "nameEng" << "" << "labelAppNameEng" << "";
    QTest::newRow("version missing") << "version" << "" << "labelAppVersion" << "1.0.0";
    QTest::newRow("publisher missing") << "publisher" << "" << "labelAppPublisher"
                                       << QStringLiteral("发行商：未知");
    QTest::newRow("website missing") << "website" << "" << "labelAppWebsite" << QStringLiteral("网址：未知");
    QTest::newRow("author missing") << "author" << "" << "labelAppAuthor" << QStringLiteral("开发者：未知");
    QTest::newRow("e-mail missing") << "email" << "" << "labelAppEmail" << QStringLiteral("E-mail：未知");
}

void tst_DPageBaseInfo::labelText()
{
    QFETCH(QString, key);
    QFETCH(QString, value);
    QFETCH(QString, label);
    QFETCH(QString, expected);

    packInfo().base.setValueFromJsonVal(key.toUtf8().constData(), QJsonValue(value));
    wizard = buildWizard();
    QCOMPARE(child<QLabel>(label.toLatin1().constData())->text(), expected);
}

void tst_DPageBaseInfo::icon_data()
{
    QTest::addColumn<QString>("appIcon");
    QTest::addColumn<QByteArray>("content"); // written to soft/images/<appIcon> when not empty
    QTest::addColumn<bool>("fromPayload");

    const QByteArray baPng = pngOf(QSize(16, 16), QColor(10, 200, 30));
    QTest::newRow("icon from the payload") << "app.png" << baPng << true;
    QTest::newRow("icon named without extension") << "app" << baPng << true;
    QTest::newRow("icon missing") << "app.png" << QByteArray() << false;
    QTest::newRow("file is no image") << "app.png" << QByteArray("not a picture\n") << false;
    QTest::newRow("appIcon empty") << "" << QByteArray() << false;
}

void tst_DPageBaseInfo::icon()
{
    QFETCH(QString, appIcon);
    QFETCH(QByteArray, content);
    QFETCH(bool, fromPayload);

    const QTemporaryDir appDir;
    QVERIFY(appDir.isValid());
    const QString strIcon = appDir.path() + QStringLiteral("/soft/images/") + appIcon;
    if (!content.isEmpty())
        QVERIFY(TestSupport::writeFile(strIcon, content));
    DTavelinGuiConfig::getInstance().setEnvAppDir(appDir.path());
    packInfo().install.appIcon = appIcon.toStdString();

    wizard = buildWizard();
    auto* labelAppIcon = child<QLabel>("labelAppIcon");
    const QImage shown = asArgb(labelAppIcon->pixmap(Qt::ReturnByValue));
    const QImage expected = fromPayload ? QImage(strIcon).convertToFormat(QImage::Format_ARGB32) : fallbackIcon();
    QVERIFY(!expected.isNull());
    QCOMPARE(shown, expected);
    QCOMPARE(labelAppIcon->size(), QSize(128, 128));
}

void tst_DPageBaseInfo::nonSquareIconFillsTheBox()
{
    const QColor color(200, 20, 90);
    QVERIFY(TestSupport::writeFile(tmpDir.path() + QStringLiteral("/soft/images/wide.png"),
                                   pngOf(QSize(40, 10), color)));
    packInfo().install.appIcon = "wide.png";

    wizard = buildWizard();
    const QImage painted = child<QLabel>("labelAppIcon")->grab().toImage();
    QCOMPARE(painted.size(), QSize(128, 128));
    // Stretched, not letterboxed: the top and bottom edges carry the image too.
    QCOMPARE(painted.pixelColor(64, 1), color);
    QCOMPARE(painted.pixelColor(64, 126), color);
}

void tst_DPageBaseInfo::defaultLocation_data()
{
    QTest::addColumn<QString>("parent");
    QTest::addColumn<QString>("dir");
    QTest::addColumn<QString>("expected");

    QTest::newRow("no trailing slash") << "/usr/local" << "demo" << "/usr/local/demo";
    QTest::newRow("one trailing slash") << "/usr/local/" << "demo" << "/usr/local/demo";
    QTest::newRow("several trailing slashes") << "/usr/local///" << "demo" << "/usr/local/demo";
    QTest::newRow("parent of slashes alone") << "///" << "demo" << "/demo";
    QTest::newRow("dir with a leading slash stays") << "/opt" << "/demo" << "/opt//demo";
    QTest::newRow("dir with a trailing slash stays") << "/opt/" << "demo/" << "/opt/demo/";
    QTest::newRow("parent empty") << "" << "demo" << "/opt/demo";
    QTest::newRow("dir empty") << "/srv" << "" << "/srv/NameEng";
    QTest::newRow("both empty") << "" << "" << "/opt/NameEng";
    QTest::newRow("relative parent") << "apps/" << "demo" << "apps/demo";
}

void tst_DPageBaseInfo::defaultLocation()
{
    QFETCH(QString, parent);
    QFETCH(QString, dir);
    QFETCH(QString, expected);

    packInfo().install.defaultParentDir = parent.toStdString();
    packInfo().install.dir = dir.toStdString();
    packInfo().base.nameEng = "NameEng";
    wizard = buildWizard();
    QCOMPARE(child<QLineEdit>("editInstallDir")->text(), expected);
}

void tst_DPageBaseInfo::noManifest()
{
    // Filled by an earlier load; a payload without a manifest must not inherit any of it.
    packInfo().base.nameEng = "Stale";
    packInfo() = TAppPackInfo();
    const QTemporaryDir appDir;
    QVERIFY(appDir.isValid());
    qputenv("APPDIR", appDir.path().toLocal8Bit());
    DTavelinGuiConfig::getInstance().init();
    qunsetenv("APPDIR");

    wizard = buildWizard();
    QCOMPARE(child<QLineEdit>("editInstallDir")->text(), QStringLiteral("/opt/"));
    QCOMPARE(asArgb(child<QLabel>("labelAppIcon")->pixmap(Qt::ReturnByValue)), fallbackIcon());
    QCOMPARE(child<QLabel>("labelAppNameChs")->text(), QString());
    QCOMPARE(child<QLabel>("labelAppNameEng")->text(), QString());
    QCOMPARE(child<QLabel>("labelAppVersion")->text(), QStringLiteral("1.0.0"));
    QCOMPARE(child<QLabel>("labelAppPublisher")->text(), QStringLiteral("发行商：未知"));
    QCOMPARE(child<QLabel>("labelAppWebsite")->text(), QStringLiteral("网址：未知"));
    QCOMPARE(child<QLabel>("labelAppAuthor")->text(), QStringLiteral("开发者：未知"));
    QCOMPARE(child<QLabel>("labelAppEmail")->text(), QStringLiteral("E-mail：未知"));
}

void tst_DPageBaseInfo::progressRow()
{
    wizard = buildWizard();
    auto* page = wizard->findChild<DPageBaseInfo*>();
    auto* label = child<QLabel>("labelProgressBarInstall");
    auto* bar = child<QProgressBar>("progressBarInstall");
    QVERIFY(label->isHidden());
    QVERIFY(bar->isHidden());
    QCOMPARE(bar->maximum(), 100);

    page->updateInstallProgress(true, 42, QStringLiteral("正在安装"));
    QVERIFY(!label->isHidden());
    QVERIFY(!bar->isHidden());
    QCOMPARE(label->text(), QStringLiteral("正在安装"));
    QCOMPARE(bar->value(), 42);

    // Hiding leaves text and value as they were.
    page->updateInstallProgress(false, 7, QStringLiteral("ignored"));
    QVERIFY(label->isHidden());
    QVERIFY(bar->isHidden());
    QCOMPARE(label->text(), QStringLiteral("正在安装"));
    QCOMPARE(bar->value(), 42);
}

QTEST_MAIN(tst_DPageBaseInfo)
#include "tst_dpagebaseinfo.moc"
