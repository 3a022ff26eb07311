/* Storage devices on the USB buses. */
#ifndef USB_DEVICE_H
#define USB_DEVICE_H

#ifdef __cplusplus
extern "C"
{
#endif

    /** Device types; the numbers are USB class codes. */
    enum
    {
        USB_DEVICE_MASS_STORAGE = 8
    };

    /** A list of devices, and a device of a list. This library owns both: do not release them. */
    typedef struct usb_device_list_s* usb_device_list_h;
    typedef struct usb_device_s* usb_device_h;

    /**
     * Begins the use of these functions. Calls nest: each needs its usb_device_fini. All functions
     * may be called from any thread.
     *
     * @return 0
     */
    __attribute__((visibility("default"))) int usb_device_init(void);

    /**
     * Ends the use that the matching usb_device_init began. The last call makes all lists, devices
     * and mount points invalid.
     *
     * @return 0; -1 without a matching usb_device_init
     */
    __attribute__((visibility("default"))) int usb_device_fini(void);

    /**
     * Lists the devices of a type that are attached at this moment, ordered by name. Reads sysfs
     * and the mount table.
     *
     * @param type  USB_DEVICE_MASS_STORAGE; no other type is known
     * @param list  set on success only; valid until the last usb_device_fini
     * @return 0, also for an empty list; -1 for another type, outside init and fini, or when sysfs
     *         cannot be read
     */
    __attribute__((visibility("default"))) int usb_device_get_device_list(int type,
                                                                          usb_device_list_h* list);

    /** The number of devices in the list; -1 without a list. */
    __attribute__((visibility("default"))) int usb_device_list_get_count(usb_device_list_h list);

    /**
     * The first device of the list.
     *
     * @param device  set on success only; valid as long as the list
     * @return 0; -1 without a list or when it is empty
     */
    __attribute__((visibility("default"))) int usb_device_list_get_first(usb_device_list_h list,
                                                                         usb_device_h* device);

    /**
     * The mount point of the device, or of the first of its partitions that is in use, when the
     * list was made: the earliest entry of the mount table.
     *
     * @return a string that this library owns, valid as long as the list; NULL when the device was
     * not mounted
     */
    __attribute__((visibility("default"))) const char*
    usb_device_get_mountpath(usb_device_h device);

#ifdef __cplusplus
}
#endif

#endif
