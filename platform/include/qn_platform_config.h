/* Settings of the platform stand-ins, read once per process from the INI file
 * named by STOVIG_CONFIG.  Every setting has a default that serves a
 * stand-alone box, so the file is optional.  Only the stand-ins and their
 * tools read this; the daemon sees the platform calls alone. */
#ifndef QN_PLATFORM_CONFIG_H
#define QN_PLATFORM_CONFIG_H

#include <map>
#include <memory>
#include <string>

struct qn_platform_config {
    /* [log] */
    std::string log_file;          /* debug log; empty: <run dir>/stovig.log */
    long long log_max_size = 10 * 1024 * 1024;
    int log_max_files = 5;
    std::string syslog_file;       /* empty: syslog(3); else lines appended here */
    std::string log_level = "warning"; /* debug log keeps: "error", "warning" or "debug" */
    std::string events_file;       /* operator event lines; empty: <run dir>/stovig-events.log */
    long long events_max_size = 10 * 1024 * 1024;
    int events_max_files = 10;
    /* [loop] */
    int second_ms = 1000;          /* length of one timer second, for tests */
    /* [bus] */
    std::string bus_url;           /* empty: embedded store; redis://HOST:PORT */
    std::string bus_user;
    std::string bus_password;
    /* [node] */
    int devid = 0;
    int phy_slot = 1;
    int user_slot = 1;
    int node_type = 1;             /* device manager node type: 1/2 take part in role election;
                                    * without it, the one [cap] CAP_DEV_TYPE stands for */
    bool node_type_given = false;
    int role = 1;                  /* role when no role record is on the bus (1 master) */
    std::string slot_name;         /* empty: "slot<user slot>" */
    std::string card_name;         /* empty: "box" */
    /* [cap]: capability values by the last component of their path */
    std::map<std::string, std::string> cap;
    /* [cli] */
    std::string cli_socket;        /* empty: <run dir>/cli.sock */
    std::string startup_file;      /* empty: <run dir>/startup-config */
    int cli_idle_timeout = 600;    /* seconds without a command before a session is closed; 0 never */
    /* [metrics] */
    std::string metrics_listen;    /* "ADDR:PORT" as written; empty: no metrics endpoint */
    std::string metrics_host;      /* numeric IPv4 or IPv6 address, without brackets */
    int metrics_port = 0;

    std::string path;              /* the file read, empty when none */
};

/* Exit status of a process whose configuration is wrong (sysexits' EX_CONFIG);
 * a service manager should not restart it.  qn_thread_master_create() ends
 * the process with it. */
#define QN_PLATFORM_EX_CONFIG 78

/* The settings of the file named by STOVIG_CONFIG (defaults without one), or
 * null when the file cannot be read or parsed or its settings contradict each
 * other; the reason (path, line, key) is printed once on stderr. */
const qn_platform_config *qn_platform_config_get();

/* The same without printing or ending: null and the reason in *error. */
std::unique_ptr<qn_platform_config> qn_platform_config_load(std::string *error);

/* Forgets the cached settings so that the next call reads the file again. */
void qn_platform_config_reload();

/* The run directory of this process: $TMPDIR (or /tmp) + "/stovig/". */
std::string qn_platform_run_dir();

#endif
