#include "wizardsupport.h"

#include <QAccessible>
#include <QBuffer>
#include <QImage>
#include <QLabel>
#include <QLayout>
#include <QLineEdit>
#include <QPushButton>
#include <QTemporaryDir>
#include <QtTest>

#include <functional>
#include <memory>

namespace {

TAppPackInfo& packInfo()
{
    return *DTavelinGuiConfig::getInstance().getAppPackInfo();
}

QImage asArgb(const QPixmap& pixmap)
{
    return pixmap.toImage().convertToFormat(QImage::Format_ARGB32);
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

class tst_DPageBaseInfo : public QObject
{
    Q_OBJECT

private slots:
    // The configuration is one per process: every case starts from an empty record.
    void init()
    {
        wizard.reset();
        packInfo() = TAppPackInfo();
        DTavelinGuiConfig::getInstance().setEnvAppDir(appDir.path());
    }

    void buildWizard()
    {
        wizard = std::make_unique<MainWindow>();
        wizard->init();
    }

    void labels_data()
    {
        QTest::addColumn<QString>("base");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("every value stands alone")
            << R"({"nameChs":"演示程序","nameEng":"Demo","version":"2.3.4","publisher":"ACME",)"
               R"("website":"https://example.org","author":"Li Lei","email":"a@example.org"})"
            << QStringList{"演示程序", "Demo", "2.3.4", "ACME", "https://example.org", "Li Lei", "a@example.org"};
        QTest::newRow("missing values: fixed texts, names empty")
            << "{}" << QStringList{"", "", "1.0.0", "发行商：未知", "网址：未知", "开发者：未知", "E-mail：未知"};
    }

    void labels()
    {
        QFETCH(QString, base);
        packInfo().base.fromJsonString(base);
        buildWizard();
        QStringList shown;
        for (const char* name : {"labelAppNameChs", "labelAppNameEng", "labelAppVersion", "labelAppPublisher",
                                 "labelAppWebsite", "labelAppAuthor", "labelAppEmail"})
            shown << child<QLabel>(name)->text();
        QTEST(shown, "expected");
    }

    // What a screen reader announces for the icon and the location field.
    void accessibleNames_data()
    {
        QTest::addColumn<QString>("base");
        QTest::addColumn<QString>("iconName");
        QTest::newRow("icon named by the Chinese name") << R"({"nameChs":"演示程序","nameEng":"Demo"})" << "演示程序";
        QTest::newRow("no Chinese name: the English one") << R"({"nameEng":"Demo"})" << "Demo";
    }

    void accessibleNames()
    {
        QFETCH(QString, base);
        packInfo().base.fromJsonString(base);
        buildWizard();
        QAccessibleInterface* icon = QAccessible::queryAccessibleInterface(child<QLabel>("labelAppIcon"));
        QAccessibleInterface* edit = QAccessible::queryAccessibleInterface(child<QLineEdit>("editInstallDir"));
        QVERIFY(icon && edit);
        QTEST(icon->text(QAccessible::Name), "iconName");
        QCOMPARE(edit->text(QAccessible::Name), QStringLiteral("安装位置"));
        QCOMPARE(edit->role(), QAccessible::EditableText);
    }

    void icon_data()
    {
        QTest::addColumn<QString>("appIcon");
        QTest::addColumn<QByteArray>("content"); // written to soft/images/<appIcon> when not empty
        QTest::addColumn<bool>("fromPayload");

        const QByteArray baPng = pngOf(QSize(16, 16), QColor(10, 200, 30));
        QTest::newRow("icon from the payload") << "app.png" << baPng << true;
        QTest::newRow("icon named without extension") << "app" << baPng << true;
        QTest::newRow("not square: stretched over the box") << "wide.png" << pngOf(QSize(40, 10), QColor(200, 20, 90)) << true;
        QTest::newRow("icon missing") << "gone.png" << QByteArray() << false;
        QTest::newRow("file is no image") << "text.png" << QByteArray("not a picture\n") << false;
        QTest::newRow("appIcon empty") << "" << QByteArray() << false;
    }

    void icon()
    {
        QFETCH(QString, appIcon);
        QFETCH(QByteArray, content);
        QFETCH(bool, fromPayload);
        const QString strIcon = appDir.path() + "/soft/images/" + appIcon;
        if (!content.isEmpty())
            QVERIFY(TestSupport::writeFile(strIcon, content));
        packInfo().install.appIcon = appIcon.toStdString();

        buildWizard();
        auto* labelAppIcon = child<QLabel>("labelAppIcon");
        const QImage expected = asArgb(QPixmap(fromPayload ? strIcon : ":/tavelin/images/none_app_icon.png"));
        QVERIFY(!expected.isNull());
        QCOMPARE(asArgb(labelAppIcon->pixmap(Qt::ReturnByValue)), expected);
        QCOMPARE(labelAppIcon->size(), QSize(128, 128));
        // Stretched, not letterboxed: the top and bottom edges carry the one-coloured image too.
        const QImage painted = labelAppIcon->grab().toImage();
        if (fromPayload)
            QVERIFY(painted.pixelColor(64, 1) == expected.pixelColor(0, 0) && painted.pixelColor(64, 126) == expected.pixelColor(0, 0));
    }

    void defaultLocation_data()
    {
        QTest::addColumn<QString>("parent");
        QTest::addColumn<QString>("dir");
        QTest::addColumn<QString>("nameEng");
        QTest::addColumn<QString>("expected");

        QTest::newRow("no trailing slash") << "/usr/local" << "demo" << "N" << "/usr/local/demo";
        QTest::newRow("several trailing slashes") << "/usr/local///" << "demo" << "N" << "/usr/local/demo";
        QTest::newRow("parent of slashes alone") << "///" << "demo" << "N" << "/demo";
        QTest::newRow("dir with a leading slash stays") << "/opt" << "/demo" << "N" << "/opt//demo";
        QTest::newRow("dir with a trailing slash stays") << "/opt/" << "demo/" << "N" << "/opt/demo/";
        QTest::newRow("parent empty") << "" << "demo" << "N" << "/opt/demo";
        QTest::newRow("dir empty: the English name") << "/srv" << "" << "NameEng" << "/srv/NameEng";
        QTest::newRow("relative parent") << "apps/" << "demo" << "N" << "apps/demo";
        QTest::newRow("no manifest at all") << "" << "" << "" << "/opt/";
    }

    void defaultLocation()
    {
        QFETCH(QString, parent);
        QFETCH(QString, dir);
        QFETCH(QString, nameEng);
        packInfo().install.defaultParentDir = parent.toStdString();
        packInfo().install.dir = dir.toStdString();
        packInfo().base.nameEng = nameEng.toStdString();
        packInfo().base.nameChs = "演示";
        buildWizard();
        QTEST(child<QLineEdit>("editInstallDir")->text(), "expected");
    }

    // What the page shows whatever the manifest holds.
    void fixedLook()
    {
        buildWizard();
        QCOMPARE(child<QPushButton>("btnSelInstallDir")->text(), QStringLiteral("选择其他位置..."));
        QCOMPARE(child<QLabel>("labelChange2RootTip01")->text(), QStringLiteral("选择的“安装位置”当前用户不可写，点击"));
        QCOMPARE(child<QPushButton>("btnChange2Root")->text(), QStringLiteral("切换为root用户"));
        QCOMPARE(child<QLabel>("labelChange2RootTip02")->text(), QStringLiteral("，可进行root用户切换。"));
        // The tip is red around a button of the usual colour.
        for (QWidget* widget : {static_cast<QWidget*>(child<QLabel>("labelChange2RootTip01")),
                                static_cast<QWidget*>(child<QLabel>("labelChange2RootTip02")),
                                static_cast<QWidget*>(child<QPushButton>("btnChange2Root"))}) {
            widget->ensurePolished();
            QCOMPARE(widget->palette().color(QPalette::WindowText) == QColor(Qt::red), qobject_cast<QLabel*>(widget) != nullptr);
        }

        // Every fixed gap, in layout order: beside the version, website and e-mail, then above and below the progress row.
        QStringList gaps;
        std::function<void(QLayout*)> walk = [&](QLayout* layout) {
            for (int i = 0; i < layout->count(); ++i) {
                QLayoutItem* item = layout->itemAt(i);
                if (item->layout())
                    walk(item->layout());
                else if (item->spacerItem() && !item->sizeHint().isNull())
                    gaps << QStringLiteral("%1x%2").arg(item->sizeHint().width()).arg(item->sizeHint().height());
            }
        };
        walk(wizard->findChild<DPageBaseInfo*>()->layout());
        QCOMPARE(gaps, QStringList({"20x0", "20x0", "20x0", "0x20", "0x20"}));

        // The compiled-in images as their PNG headers give them: width, height, 8 bits, RGBA.
        for (const auto& image : {std::make_pair(":/tavelin/images/installer_system_icon.png", 32),
                                  std::make_pair(":/tavelin/images/none_app_icon.png", 512)}) {
            QFile file(QLatin1String(image.first));
            QVERIFY(file.open(QIODevice::ReadOnly));
            const char side[] = {0, 0, char(image.second >> 8), char(image.second & 0xff)};
            QCOMPARE(file.read(26).mid(16), QByteArray(side, 4) + QByteArray(side, 4) + QByteArray("\x08\x06", 2));
        }
    }

private:
    template <typename T>
    T* child(const char* name) const { return wizard->findChild<T*>(QLatin1String(name)); }

    QTemporaryDir appDir;
    std::unique_ptr<MainWindow> wizard;
};

QTEST_MAIN(tst_DPageBaseInfo)
#include "tst_dpagebaseinfo.moc"
