#include "mainwindow.h"

// The switch to root through polkit. Not built yet.
void DPageBaseInfo::onclickChange2Root()
{
}
