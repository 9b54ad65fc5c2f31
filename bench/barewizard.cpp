#include <QApplication>
#include <QWizard>

#include <cstring>

// The reference for start-up: an empty QWizard, started the way tavelin-gui
// starts (same platform theme), unless --no-theme is given.
int main(int argc, char* argv[])
{
    if (!(argc > 1 && std::strcmp(argv[1], "--no-theme") == 0))
        qputenv("QT_QPA_PLATFORMTHEME", "gtk3");
    QApplication app(argc, argv);
    QWizard wizard;
    wizard.show();
    return QApplication::exec();
}
