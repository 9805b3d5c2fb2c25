// Test helper: the configuration of a private D-Bus daemon for a test's own services.
#pragma once

namespace kp::test {

// No service activation: nothing starts behind the test's back. "@SOCKET@" stands for the
// socket's path, filled in by whoever starts the daemon.
inline constexpr const char* kPrivateBusConfig =
    R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=@SOCKET@</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";

}  // namespace kp::test
