#include "DAppPackModel.h"

#include <QtTest>

class tst_DAppPackModel : public QObject
{
    Q_OBJECT

private slots:
    void loadsEveryKey();
private:
};

void tst_DAppPackModel::loadsEveryKey()
{
    TAppPackInfo info;
    info.fromJsonString(QStringLiteral(R"({"base":{"nameEng":"Demo"},"install":{"filesTotalCount":7}})"));
    QCOMPARE(info.base.nameEng, std::string("Demo"));
    QCOMPARE(info.install.filesTotalCount, 7);
}

QTEST_GUILESS_MAIN(tst_DAppPackModel)
#include "tst_dapppackmodel.moc"
