#include "mainwindow.h"

#include <QApplication>
#include <QIcon>

#include <signal.h>
#include <sys/types.h>

int main(int argc, char* argv[])
{
    qputenv("QT_QPA_PLATFORMTHEME", "gtk3");

    QString strForkPid;
    try {
        // A root wizard started by the switch to root ends the one that started it.
        strForkPid = QString::fromLocal8Bit(qgetenv("FORKPID"));
        if (!strForkPid.isEmpty()) {
            const pid_t forkPid = static_cast<pid_t>(strForkPid.toUInt(nullptr, 10));
            if (forkPid > 0)
                kill(forkPid, SIGKILL);
        }

        DTavelinGuiConfig::getInstance().init();

        QApplication a(argc, argv);
        MainWindow w;
        w.setWindowIcon(QIcon(QStringLiteral(":/tavelin/images/installer_system_icon.png")));
        w.init();
        w.show();
        QApplication::exec();
    } catch (...) {
        // The exit status never reports how an installation went.
    }
    return 0;
}
