/* Stands in for the DNS-SD daemon (avahi-daemon) that Debian's SoapySDRServer
 * insists on: without one it exits at once. Loaded into the server only
 * (LD_PRELOAD) by the SoapyRemote test, so that the test needs no system
 * daemon; it reports a running daemon and accepts every publication, which
 * the test does not look at. Opaque pointers throughout: no avahi headers. */
#include <stddef.h>

typedef void (*ClientCallback)(void* client, int state, void* userdata);

enum { kClientRunning = 2 }; /* AVAHI_CLIENT_S_RUNNING */

static int client, group, browser, resolver;

void* avahi_client_new(const void* poll, int flags, ClientCallback callback, void* userdata, int* error) {
    (void)poll, (void)flags;
    if (error) *error = 0;
    if (callback) callback(&client, kClientRunning, userdata);
    return &client;
}
void avahi_client_free(void* c) { (void)c; }
int avahi_client_get_state(void* c) { (void)c; return kClientRunning; }
int avahi_client_errno(void* c) { (void)c; return 0; }
const char* avahi_client_get_version_string(void* c) { (void)c; return "stand-in"; }
const char* avahi_client_get_host_name(void* c) { (void)c; return "localhost"; }
const char* avahi_client_get_host_name_fqdn(void* c) { (void)c; return "localhost.local"; }
const char* avahi_client_get_domain_name(void* c) { (void)c; return "local"; }

void* avahi_entry_group_new(void* c, void* callback, void* userdata) { (void)c, (void)callback, (void)userdata; return &group; }
int avahi_entry_group_add_service_strlst(void* g, int iface, int proto, int flags, const char* name, const char* type,
                                         const char* domain, const char* host, unsigned short port, void* txt) {
    (void)g, (void)iface, (void)proto, (void)flags, (void)name, (void)type, (void)domain, (void)host, (void)port, (void)txt;
    return 0;
}
int avahi_entry_group_commit(void* g) { (void)g; return 0; }
int avahi_entry_group_free(void* g) { (void)g; return 0; }
void* avahi_entry_group_get_client(void* g) { (void)g; return &client; }

void* avahi_service_browser_new(void* c, int iface, int proto, const char* type, const char* domain, int flags,
                                void* callback, void* userdata) {
    (void)c, (void)iface, (void)proto, (void)type, (void)domain, (void)flags, (void)callback, (void)userdata;
    return &browser;
}
int avahi_service_browser_free(void* b) { (void)b; return 0; }
void* avahi_service_browser_get_client(void* b) { (void)b; return &client; }
void* avahi_service_resolver_new(void* c, int iface, int proto, const char* name, const char* type, const char* domain,
                                 int aproto, int flags, void* callback, void* userdata) {
    (void)c, (void)iface, (void)proto, (void)name, (void)type, (void)domain, (void)aproto, (void)flags, (void)callback,
        (void)userdata;
    return &resolver;
}
int avahi_service_resolver_free(void* r) { (void)r; return 0; }
