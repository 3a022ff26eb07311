# Sourced by the demo and by the checks of an installation.
#
# closed_bus FOLDER: the configuration of a bus of the system's type at FOLDER/bus. Like the system
# bus it forbids everything but what the files in FOLDER/system.d allow, and starts services from
# FOLDER/services.
# shellcheck shell=bash
closed_bus() {
    cat <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=$1/bus</listen>
  <auth>EXTERNAL</auth>
  <servicedir>$1/services</servicedir>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
  </policy>
  <includedir>$1/system.d</includedir>
</busconfig>
CONF
}
