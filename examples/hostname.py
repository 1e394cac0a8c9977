#!/usr/bin/python3
"""Sets the device's host name in the registry and reads it back: hostname.py NAME"""

import sys

import dbus


def main(name="player-7"):
    try:
        service = dbus.SystemBus().get_object("com.tavimesh.Registry", "/com/tavimesh/Registry")
        registry = dbus.Interface(service, "com.tavimesh.Registry")
        registry.Write("network", "hostname", name)
        print(registry.Read("network", "hostname"))
    except dbus.DBusException as error:
        if error.get_dbus_name() == "com.tavimesh.Registry.Errors.Full":
            sys.exit("The registry is full; nothing has changed.")
        sys.exit(error.get_dbus_message())


main(*sys.argv[1:])
