// The service through which the plugin centre talks to a running plugin.
// Every plugin that accepts control commands serves it on its own port of the
// local host; the plugin centre is the client. Framed transport, binary
// protocol. Both calls answer; failures travel as application exceptions.
namespace cpp datacenter

service DataCenter {
    // An opaque command for the plugin; the reply is the plugin's answer.
    string request(1: string parameter),

    // An event of kind `type` with its payload; the reply is the plugin's answer.
    string notify(1: i32 type, 2: string parameter)
}
