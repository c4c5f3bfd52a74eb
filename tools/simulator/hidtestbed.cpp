// SPDX-License-Identifier: MIT
#include "hidtestbed.h"

#include <QDir>

#include <gio/gio.h>
#include <umockdev.h>

HidTestbed::HidTestbed() : bed(umockdev_testbed_new())
{
    // Starts GLib's own thread now instead of somewhen: whoever counts threads or descriptors from
    // here on sees it.
    g_type_ensure(G_TYPE_TASK);
    QDir(root()).mkdir(QStringLiteral("dev"));
}

HidTestbed::~HidTestbed()
{
    QDir(root() + QStringLiteral("/dev")).removeRecursively();
    g_object_unref(bed);
}

QString HidTestbed::root() const
{
    gchar* const directory = umockdev_testbed_get_root_dir(bed);
    QString text = QString::fromLocal8Bit(directory);
    g_free(directory);
    return text;
}
