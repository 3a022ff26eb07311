/* USB storage on a host: block devices below a USB bus in sysfs, and the mount table. */
#include <usb_device.h>

#include <glib.h>
#include <mntent.h>
#include <pthread.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "host_root.h"

struct usb_device_s
{
    char* name;
    char* mount_path;
};

struct usb_device_list_s
{
    GPtrArray* devices;
};

static pthread_mutex_t service_mutex = PTHREAD_MUTEX_INITIALIZER;
static unsigned int users;
static GPtrArray* lists; /* all lists that users have */

static void free_device(gpointer data)
{
    struct usb_device_s* device = data;
    g_free(device->name);
    g_free(device->mount_path);
    g_free(device);
}

static void free_list(gpointer data)
{
    struct usb_device_list_s* list = data;
    g_ptr_array_unref(list->devices);
    g_free(list);
}

static int compare_names(gconstpointer left, gconstpointer right)
{
    const struct usb_device_s* const* a = left;
    const struct usb_device_s* const* b = right;
    return strcmp((*a)->name, (*b)->name);
}

/* --- sysfs ------------------------------------------------------------------------------------ */

/* Whether a device path leads through a root hub: a component "usb" with a number. */
static bool is_below_usb(const char* path)
{
    for (const char* hub = strstr(path, "/usb"); hub != NULL; hub = strstr(hub + 1, "/usb"))
    {
        const char* number = hub + strlen("/usb");
        const size_t digits = strspn(number, "0123456789");
        if (digits > 0 && number[digits] == '/')
        {
            return true;
        }
    }
    return false;
}

/* Entries of the class are links into the device tree. Partitions belong to their disk. */
static bool is_usb_disk(const char* class_directory, const char* name)
{
    char* entry = g_build_filename(class_directory, name, NULL);
    char* device = realpath(entry, NULL);
    g_free(entry);
    if (device == NULL)
    {
        return false;
    }
    const char* devices = strstr(device, "/sys/devices/");
    char* partition = g_build_filename(device, "partition", NULL);
    const bool result =
        devices != NULL && is_below_usb(devices) && !g_file_test(partition, G_FILE_TEST_EXISTS);
    g_free(partition);
    free(device);
    return result;
}

static GPtrArray* find_usb_disks(void)
{
    char* class_directory = host_path("/sys/class/block");
    GDir* directory = g_dir_open(class_directory, 0, NULL);
    if (directory == NULL)
    {
        g_free(class_directory);
        return NULL;
    }
    GPtrArray* devices = g_ptr_array_new_with_free_func(free_device);
    for (const char* name = g_dir_read_name(directory); name != NULL;
         name = g_dir_read_name(directory))
    {
        if (is_usb_disk(class_directory, name))
        {
            struct usb_device_s* device = g_new0(struct usb_device_s, 1);
            device->name = g_strdup(name);
            g_ptr_array_add(devices, device);
        }
    }
    g_dir_close(directory);
    g_free(class_directory);
    g_ptr_array_sort(devices, compare_names);
    return devices;
}

/* --- The mount table -------------------------------------------------------------------------- */

/* Whether the source is the disk itself or one of its partitions, which sysfs keeps below it. */
static bool is_on_disk(const char* source, const char* disk)
{
    char* resolved = host_root() == NULL ? realpath(source, NULL) : NULL; /* /dev/disk/by-... */
    char* name = g_path_get_basename(resolved != NULL ? resolved : source);
    free(resolved);
    bool result = strcmp(name, disk) == 0;
    if (!result)
    {
        char* relative = g_build_filename("/sys/class/block", disk, name, "partition", NULL);
        char* partition = host_path(relative);
        result = g_file_test(partition, G_FILE_TEST_EXISTS);
        g_free(partition);
        g_free(relative);
    }
    g_free(name);
    return result;
}

/* The first mount of a device counts. */
static void note_mount(GPtrArray* devices, const char* source, const char* mount_path)
{
    if (!g_str_has_prefix(source, "/dev/"))
    {
        return;
    }
    for (guint i = 0; i < devices->len; ++i)
    {
        struct usb_device_s* device = g_ptr_array_index(devices, i);
        if (device->mount_path == NULL && is_on_disk(source, device->name))
        {
            device->mount_path = g_strdup(mount_path);
        }
    }
}

static void note_mounts(GPtrArray* devices)
{
    char* table = host_path("/proc/self/mounts");
    FILE* file = setmntent(table, "re");
    g_free(table);
    if (file == NULL)
    {
        return;
    }
    struct mntent entry;
    char buffer[4096];
    while (getmntent_r(file, &entry, buffer, sizeof buffer) != NULL)
    {
        note_mount(devices, entry.mnt_fsname, entry.mnt_dir);
    }
    endmntent(file);
}

static GPtrArray* take_stock(void)
{
    GPtrArray* devices = find_usb_disks();
    if (devices != NULL && devices->len != 0)
    {
        note_mounts(devices);
    }
    return devices;
}

/* --- The service ------------------------------------------------------------------------------ */

int usb_device_init(void)
{
    pthread_mutex_lock(&service_mutex);
    if (users == 0)
    {
        lists = g_ptr_array_new_with_free_func(free_list);
    }
    ++users;
    pthread_mutex_unlock(&service_mutex);
    return 0;
}

int usb_device_fini(void)
{
    int result = -1;
    pthread_mutex_lock(&service_mutex);
    if (users > 0)
    {
        --users;
        if (users == 0)
        {
            g_ptr_array_unref(lists);
            lists = NULL;
        }
        result = 0;
    }
    pthread_mutex_unlock(&service_mutex);
    return result;
}

int usb_device_get_device_list(int type, usb_device_list_h* list)
{
    if (type != USB_DEVICE_MASS_STORAGE || list == NULL)
    {
        return -1;
    }
    int result = -1;
    pthread_mutex_lock(&service_mutex);
    GPtrArray* devices = users > 0 ? take_stock() : NULL;
    if (devices != NULL)
    {
        struct usb_device_list_s* fresh = g_new0(struct usb_device_list_s, 1);
        fresh->devices = devices;
        g_ptr_array_add(lists, fresh);
        *list = fresh;
        result = 0;
    }
    pthread_mutex_unlock(&service_mutex);
    return result;
}

int usb_device_list_get_count(usb_device_list_h list)
{
    return list != NULL ? (int)list->devices->len : -1;
}

int usb_device_list_get_first(usb_device_list_h list, usb_device_h* device)
{
    if (list == NULL || list->devices->len == 0 || device == NULL)
    {
        return -1;
    }
    *device = g_ptr_array_index(list->devices, 0);
    return 0;
}

const char* usb_device_get_mountpath(usb_device_h device)
{
    return device != NULL ? device->mount_path : NULL;
}
