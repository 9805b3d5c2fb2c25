'''systemd-hostnamed's Chassis for the device tests, hosted by python3-dbusmock on a private bus.
The chassis is the "Chassis" parameter; the test changes it with the properties interface's
Set, which announces the change as hostnamed does.'''

import dbus

BUS_NAME = 'org.freedesktop.hostname1'
MAIN_OBJ = '/org/freedesktop/hostname1'
MAIN_IFACE = 'org.freedesktop.hostname1'
SYSTEM_BUS = True


def load(mock, parameters):
    mock.AddProperties(MAIN_IFACE, dbus.Dictionary({
        'Hostname': 'kp-test',
        'Chassis': parameters.get('Chassis', 'laptop'),
        'OperatingSystemPrettyName': 'Test OS',
    }, signature='sv'))
