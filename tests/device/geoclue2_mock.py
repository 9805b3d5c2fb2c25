'''A location service for the device tests, hosted by python3-dbusmock on a private bus.

It speaks the documented GeoClue2 interfaces: the manager's GetClient, a client object per
call with DesktopId, RequestedAccuracyLevel, Location and Active, its Start and Stop, and
LocationUpdated naming a location object with Latitude, Longitude, Accuracy, Altitude, Speed,
Heading, Description and Timestamp. The test steers it through the mock interface: MoveTo
moves the device, MoveToMalformed publishes a location not as documented, Refuse makes a
method answer with an error (or, for GetClient and 'hang', answer 3 s late), Withdraw stops the clients as a user's refusal would, and
SendBadUpdate sends a LocationUpdated with the wrong arguments.
'''

import time

import dbus
from dbusmock import MOCK_IFACE
from dbusmock.mockobject import objects

BUS_NAME = 'org.freedesktop.GeoClue2'
MAIN_OBJ = '/org/freedesktop/GeoClue2/Manager'
MAIN_IFACE = 'org.freedesktop.GeoClue2.Manager'
SYSTEM_BUS = True

CLIENT_IFACE = 'org.freedesktop.GeoClue2.Client'
LOCATION_IFACE = 'org.freedesktop.GeoClue2.Location'
UNKNOWN_ALTITUDE = -1.7976931348623157e308

START = '''
manager = objects['/org/freedesktop/GeoClue2/Manager']
if manager.refusals.get('Start'):
    raise dbus.exceptions.DBusException('refused by the test', name=manager.refusals['Start'])
if not self.Get('org.freedesktop.GeoClue2.Client', 'DesktopId'):
    raise dbus.exceptions.DBusException('DesktopId must be set', name='org.freedesktop.DBus.Error.AccessDenied')
self.Set('org.freedesktop.GeoClue2.Client', 'Active', dbus.Boolean(True))
if manager.current:
    self.Set('org.freedesktop.GeoClue2.Client', 'Location', dbus.ObjectPath(manager.current))
    self.EmitSignal('org.freedesktop.GeoClue2.Client', 'LocationUpdated', 'oo', ['/', manager.current])
'''
STOP = "self.Set('org.freedesktop.GeoClue2.Client', 'Active', dbus.Boolean(False))"


def load(mock, parameters):
    mock.refusals = {}
    mock.clients = []
    mock.current = None
    mock.count = 0


def active_clients():
    for path in objects[MAIN_OBJ].clients:
        client = objects.get(path)
        if client is not None and client.Get(CLIENT_IFACE, 'Active'):
            yield client


def publish(manager, properties):
    manager.count += 1
    path = f'/org/freedesktop/GeoClue2/Location/{manager.count}'
    manager.AddObject(path, LOCATION_IFACE, properties, [])
    previous = manager.current or '/'
    manager.current = path
    for client in active_clients():
        client.Set(CLIENT_IFACE, 'Location', dbus.ObjectPath(path))
        client.EmitSignal(CLIENT_IFACE, 'LocationUpdated', 'oo', [dbus.ObjectPath(previous), dbus.ObjectPath(path)])


@dbus.service.method(MAIN_IFACE, in_signature='', out_signature='o')
def GetClient(self):
    if self.refusals.get('GetClient') == 'hang':
        time.sleep(3)  # the whole service stops answering meanwhile
    elif self.refusals.get('GetClient'):
        raise dbus.exceptions.DBusException('refused by the test', name=self.refusals['GetClient'])
    path = f'/org/freedesktop/GeoClue2/Client/{len(self.clients) + 1}'
    self.AddObject(path, CLIENT_IFACE, {
        'DesktopId': dbus.String(''),
        'RequestedAccuracyLevel': dbus.UInt32(0),
        'DistanceThreshold': dbus.UInt32(0),
        'TimeThreshold': dbus.UInt32(0),
        'Location': dbus.ObjectPath('/'),
        'Active': dbus.Boolean(False),
    }, [('Start', '', '', START), ('Stop', '', '', STOP)])
    self.clients.append(path)
    return dbus.ObjectPath(path)


@dbus.service.method(MOCK_IFACE, in_signature='ddd', out_signature='')
def MoveTo(self, latitude, longitude, accuracy):
    now = time.time()
    publish(self, {
        'Latitude': dbus.Double(latitude),
        'Longitude': dbus.Double(longitude),
        'Accuracy': dbus.Double(accuracy),
        'Altitude': dbus.Double(UNKNOWN_ALTITUDE),
        'Speed': dbus.Double(-1.0),
        'Heading': dbus.Double(-1.0),
        'Description': dbus.String(''),
        'Timestamp': dbus.Struct((dbus.UInt64(int(now)), dbus.UInt64(int(now % 1 * 1e6))), signature='tt'),
    })


@dbus.service.method(MOCK_IFACE, in_signature='s', out_signature='')
def MoveToMalformed(self, kind):
    properties = {'Latitude': dbus.Double(52.37), 'Longitude': dbus.Double(4.89), 'Accuracy': dbus.Double(10.0)}
    if kind == 'textLatitude':
        properties['Latitude'] = dbus.String('52.37')
    elif kind == 'noLongitude':
        del properties['Longitude']
    publish(self, properties)


@dbus.service.method(MOCK_IFACE, in_signature='ss', out_signature='')
def Refuse(self, method, error_name):
    self.refusals[method] = error_name


@dbus.service.method(MOCK_IFACE, in_signature='', out_signature='')
def Withdraw(self):
    for client in list(active_clients()):
        client.Set(CLIENT_IFACE, 'Active', dbus.Boolean(False))


@dbus.service.method(MOCK_IFACE, in_signature='', out_signature='')
def SendBadUpdate(self):
    for client in active_clients():
        client.EmitSignal(CLIENT_IFACE, 'LocationUpdated', 's', ['not an object path'])
