// A service with an interface of its own, for programs that do not use the library: a method, a
// property, a signal, and an error with a name.
#include <iostream>
#include <string>

#include <gio/gio.h>
#include <glib-unix.h>

#include <qor/QORDbusServer.h>

static const char INTERFACE[] = "com.example.Greeter1";
static const char XML[] = R"(
<node>
  <interface name="com.example.Greeter1">
    <method name="Greet">
      <arg type="s" name="name" direction="in"/>
      <arg type="s" name="words" direction="out"/>
    </method>
    <signal name="Greeted">
      <arg type="s" name="name"/>
    </signal>
    <property name="Greetings" type="u" access="read"/>
  </interface>
</node>)";

class Greeter
{
public:
    // The functions run only when the main context is iterated.
    Greeter()
        : m_bus(false, {{XML, [this](GDBusMethodInvocation* pCall) { Greet(pCall); },
                         [this](const std::string&) { return g_variant_new_uint32(m_greetings); }}})
    {
    }

    int Run()
    {
        g_unix_signal_add(SIGTERM, &Stop, this);
        while (m_isRunning)
        {
            g_main_context_iteration(nullptr, TRUE);
        }
        return 0;
    }

private:
    // The library has compared the arguments with the description.
    void Greet(GDBusMethodInvocation* pCall)
    {
        const char* argument = nullptr;
        g_variant_get(g_dbus_method_invocation_get_parameters(pCall), "(&s)", &argument);
        const std::string name = argument; // the answer releases the call
        if (name.empty())
        {
            g_dbus_method_invocation_return_dbus_error(pCall, "com.example.Error.NoName", "whom?");
            return;
        }
        ++m_greetings;
        const std::string words =
            "Hello, " + name + ", user " + std::to_string(m_bus.CurrentPeer().m_userId);
        g_dbus_method_invocation_return_value(pCall, g_variant_new("(s)", words.c_str()));
        m_bus.EmitSignal(INTERFACE, "Greeted", g_variant_new("(s)", name.c_str()));
    }

    static int Stop(void* pGreeter)
    {
        auto* pThis = static_cast<Greeter*>(pGreeter);
        pThis->m_bus.Stop(2000, [pThis] { pThis->m_isRunning = false; });
        return G_SOURCE_CONTINUE;
    }

    unsigned int m_greetings = 0;
    bool m_isRunning = true;
    qor::TCDbusServer m_bus;
};

int main()
{
    return Greeter().Run();
}
