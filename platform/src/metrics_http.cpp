/* The metrics endpoint on libevent's HTTP server, attached to the event base
 * of the program's loop: no thread of its own.  A request is answered inside
 * the loop's dispatch, between two tasks of the program, so the renderer
 * sees the program's data as it stands between tasks and never while a task
 * changes it.  Requests are small and bounded: headers and body are capped,
 * and a connection that stays silent is closed after a timeout. */
#include "qn_metrics.h"
#include "qn_platform_config.h"
#include "qn_thread_standin.h"

#include <event2/buffer.h>
#include <event2/event.h>
#include <event2/http.h>
#include <event2/keyvalq_struct.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

struct qn_metrics_out {
    struct evbuffer *buf;
};

namespace {

/* A scrape request is a line and a few headers; nothing needs a body. */
constexpr ev_ssize_t max_headers_size = 8192;
constexpr ev_ssize_t max_body_size = 1024;
/* Seconds a connection may take to send its request or read the reply. */
constexpr int request_timeout_s = 10;

constexpr const char *content_type = "text/plain; version=0.0.4; charset=utf-8";

struct endpoint {
    struct evhttp *http = nullptr;
    qn_metrics_render_t render = nullptr;
    void *arg = nullptr;
};

endpoint ep;

void reply_plain(struct evhttp_request *req, int code, const char *reason, const char *text)
{
    struct evbuffer *body = evbuffer_new();
    if (body)
        evbuffer_add(body, text, strlen(text));
    evhttp_add_header(evhttp_request_get_output_headers(req), "Content-Type", "text/plain; charset=utf-8");
    evhttp_send_reply(req, code, reason, body);
    if (body)
        evbuffer_free(body);
}

void on_request(struct evhttp_request *req, void *)
{
    const struct evhttp_uri *uri = evhttp_request_get_evhttp_uri(req);
    const char *path = uri ? evhttp_uri_get_path(uri) : nullptr;
    if (!path || strcmp(path, "/metrics") != 0) {
        reply_plain(req, HTTP_NOTFOUND, "Not Found", "Only /metrics is served here.\n");
        return;
    }
    if (evhttp_request_get_command(req) != EVHTTP_REQ_GET) {
        evhttp_add_header(evhttp_request_get_output_headers(req), "Allow", "GET");
        reply_plain(req, HTTP_BADMETHOD, "Method Not Allowed", "Only GET is served here.\n");
        return;
    }
    struct evbuffer *body = evbuffer_new();
    if (!body) {
        evhttp_send_error(req, HTTP_INTERNAL, nullptr);
        return;
    }
    qn_metrics_out out{body};
    if (!ep.render || ep.render(&out, ep.arg) < 0) {
        evbuffer_free(body);
        reply_plain(req, HTTP_INTERNAL, "Internal Server Error", "The metrics could not be rendered.\n");
        return;
    }
    evhttp_add_header(evhttp_request_get_output_headers(req), "Content-Type", content_type);
    evhttp_send_reply(req, HTTP_OK, "OK", body);
    evbuffer_free(body);
}

} // namespace

extern "C" {

int qn_metrics_write(struct qn_metrics_out *out, const char *text, size_t len)
{
    if (!out || !out->buf || (!text && len))
        return -1;
    return evbuffer_add(out->buf, text, len) == 0 ? 0 : -1;
}

int qn_metrics_register(struct qn_thread_master *master, qn_metrics_render_t render, void *arg)
{
    const qn_platform_config *cfg = qn_platform_config_get();
    ep.render = render;
    ep.arg = arg;
    if (!cfg || cfg->metrics_listen.empty() || ep.http)
        return 0;
    struct event_base *base = master ? qn_thread_master_event_base(master) : nullptr;
    if (!base || !render) {
        fprintf(stderr, "metrics: no event loop or renderer; the endpoint %s is not served.\n",
                cfg->metrics_listen.c_str());
        return -1;
    }
    struct evhttp *http = evhttp_new(base);
    if (!http) {
        fprintf(stderr, "metrics: cannot create the HTTP server; the endpoint %s is not served.\n",
                cfg->metrics_listen.c_str());
        return -1;
    }
    evhttp_set_max_headers_size(http, max_headers_size);
    evhttp_set_max_body_size(http, max_body_size);
    evhttp_set_timeout(http, request_timeout_s);
    /* Every method reaches the handler, which answers 405 itself (libevent
     * would answer 501 for the ones it was not told about). */
    evhttp_set_allowed_methods(http, EVHTTP_REQ_GET | EVHTTP_REQ_POST | EVHTTP_REQ_HEAD | EVHTTP_REQ_PUT |
                                         EVHTTP_REQ_DELETE | EVHTTP_REQ_OPTIONS | EVHTTP_REQ_TRACE |
                                         EVHTTP_REQ_CONNECT | EVHTTP_REQ_PATCH);
    evhttp_set_gencb(http, on_request, nullptr);
    if (evhttp_bind_socket(http, cfg->metrics_host.c_str(), static_cast<ev_uint16_t>(cfg->metrics_port)) != 0) {
        int err = errno;
        fprintf(stderr, "metrics: cannot listen on %s: %s; running without the metrics endpoint.\n",
                cfg->metrics_listen.c_str(), strerror(err));
        evhttp_free(http);
        return -1;
    }
    ep.http = http;
    return 0;
}

void qn_metrics_stop(void)
{
    if (ep.http)
        evhttp_free(ep.http);
    ep = endpoint{};
}

} // extern "C"
