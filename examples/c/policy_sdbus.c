/* Sets the policy from the file that the command line names, if it names one. Then prints the hash
   of the policy in force, now and after each change, even if the service or the bus restarts.
   cc policy_sdbus.c $(pkg-config --cflags --libs libsystemd) */
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <systemd/sd-bus.h>

static const char NAME[] = "com.norvane.qor.IControl";
static const char PATH[] = "/com/norvane/qor/CommunicationChannel";
static const char POLICY1[] = "com.norvane.qor.Policy1";

static int Tell(sd_bus_message* signal, void* data, sd_bus_error* error)
{
    const char* sha256 = "";
    (void)data;
    (void)error;
    if (sd_bus_message_read(signal, "s", &sha256) >= 0)
        printf("in force: %s\n", sha256);
    return 0;
}

static int Follow(sd_bus* bus, const char* policy, sd_bus_error* error)
{
    sd_bus_message* reply = NULL;
    int result = sd_bus_match_signal(bus, NULL, NAME, PATH, POLICY1, "PolicyChanged", Tell, NULL);
    if (result >= 0 && policy)
        result = sd_bus_call_method(bus, NAME, PATH, POLICY1, "SetPolicy", error, NULL, "sa{sv}",
                                    policy, 0);
    if (result >= 0)
        result = sd_bus_get_property(bus, NAME, PATH, POLICY1, "PolicySha256", error, &reply, "s");
    if (result >= 0)
        Tell(reply, NULL, NULL);
    sd_bus_message_unref(reply);
    while (result >= 0)
    {
        result = sd_bus_process(bus, NULL);
        if (result == 0)
            result = sd_bus_wait(bus, UINT64_MAX);
    }
    return result;
}

int main(int count, char** arguments)
{
    static char policy[(16 << 20) + 1]; /* the service takes no more */
    FILE* file = count > 1 ? fopen(arguments[1], "r") : NULL;
    int isGiven = file && fread(policy, 1, sizeof policy - 1, file) > 0;
    setlinebuf(stdout);
    for (;; isGiven = 0, sleep(1))
    {
        sd_bus* bus = NULL;
        sd_bus_error error = SD_BUS_ERROR_NULL;
        int result = sd_bus_open_system(&bus);
        result = result < 0 ? result : Follow(bus, isGiven ? policy : NULL, &error);
        printf("%s: %s\n", error.name ? error.name : "no bus",
               error.message ? error.message : strerror(-result));
        sd_bus_error_free(&error);
        sd_bus_unref(bus);
    }
}
