#!/usr/bin/env python3
"""The Windows build's TLS (Schannel) under Wine against a real Kamailio.

A test CA and three server certificates are made with `openssl`; for each a
Kamailio with its tls module presents it on 127.0.0.1, and
tls_register_probe.exe, under Wine, registers alice of test.local through it:
the CA's certificate for test.local registers, the one for wrong.local and a
self-signed one are refused with their fixed reasons. Every Kamailio it
starts it also stops.
"""
import argparse
import os
import shutil
import socket
import subprocess
import sys
import time

WINE = "/usr/lib/wine/wine64"
MODULES = "/usr/lib/x86_64-linux-gnu/kamailio/modules"


def log(text):
    print(f"tls_wine_test: {text}", flush=True)


def openssl(work, *arguments):
    subprocess.run(["openssl", *arguments], cwd=work, check=True, capture_output=True)


def make_certificates(work):
    openssl(work, "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "1", "-keyout", "ca.key", "-out",
            "ca.pem", "-subj", "/CN=Velmora Test CA", "-addext", "basicConstraints=critical,CA:TRUE",
            "-addext", "keyUsage=critical,keyCertSign,cRLSign")
    for stem, name, alt in (("server", "test.local", "DNS:test.local,URI:sip:test.local"),
                            ("wrong", "wrong.local", "DNS:wrong.local")):
        with open(os.path.join(work, stem + ".ext"), "w") as f:
            f.write(f"subjectAltName={alt}\nbasicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n")
        openssl(work, "req", "-new", "-newkey", "rsa:2048", "-nodes", "-keyout", stem + ".key", "-out",
                stem + ".csr", "-subj", "/CN=" + name)
        openssl(work, "x509", "-req", "-in", stem + ".csr", "-CA", "ca.pem", "-CAkey", "ca.key", "-CAcreateserial",
                "-days", "1", "-out", stem + ".pem", "-extfile", stem + ".ext")
    openssl(work, "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "1", "-keyout", "self.key", "-out",
            "self.pem", "-subj", "/CN=test.local", "-addext", "subjectAltName=DNS:test.local")


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def kamailio_config(port, certificate, key):
    return f"""#!KAMAILIO
debug=2
log_stderror=yes
children=1
tcp_children=2
auto_aliases=no
dns=no
rev_dns=no
enable_tls=yes
listen=tls:127.0.0.1:{port}
alias="test.local"
mpath="{MODULES}/"
loadmodule "tm.so"
loadmodule "sl.so"
loadmodule "pv.so"
loadmodule "usrloc.so"
loadmodule "registrar.so"
loadmodule "auth.so"
loadmodule "htable.so"
loadmodule "xlog.so"
loadmodule "textops.so"
loadmodule "tls.so"
modparam("tls", "tls_method", "TLSv1.2+")
modparam("tls", "certificate", "{certificate}")
modparam("tls", "private_key", "{key}")
modparam("tls", "verify_certificate", 0)
modparam("tls", "require_certificate", 0)
modparam("usrloc", "db_mode", 0)
modparam("htable", "htable", "users=>size=4;")
event_route[htable:mod-init] {{
    $sht(users=>alice) = "secret";
}}
request_route {{
    xlog("L_NOTICE", "request $rm from $fU via $pr\\n");
    if (is_method("REGISTER")) {{
        if ($sht(users=>$au) == $null || !pv_www_authenticate("$td", "$sht(users=>$au)", "0")) {{
            www_challenge("$td", "1"); exit;
        }}
        if (!save("location")) {{ sl_reply_error(); exit; }}
        exit;
    }}
    sl_send_reply("404", "Not Found");
}}
"""


def accepts(port):
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=0.2):
            return True
    except OSError:
        return False


def run_case(args, work, stem, expected, wine_env):
    port = free_port()
    config = os.path.join(work, f"kamailio-{stem}.cfg")
    with open(config, "w") as f:
        f.write(kamailio_config(port, os.path.join(work, stem + ".pem"), os.path.join(work, stem + ".key")))
    kamailio_log = open(os.path.join(work, f"kamailio-{stem}.log"), "w+")
    kamailio = subprocess.Popen(["kamailio", "-f", config, "-P", os.path.join(work, f"kamailio-{stem}.pid"),
                                 "-w", work, "-Y", work, "-DD", "-E", "-m", "32", "-M", "4"],
                                stdout=kamailio_log, stderr=subprocess.STDOUT, start_new_session=True)
    try:
        deadline = time.monotonic() + 10
        while not accepts(port):
            if kamailio.poll() is not None or time.monotonic() > deadline:
                kamailio_log.seek(0)
                print(kamailio_log.read())
                log(f"{stem}: Kamailio did not start")
                return False
            time.sleep(0.05)
        probe = subprocess.run([WINE, args.probe, str(port), "Z:" + os.path.join(work, "ca.pem")],
                               env=wine_env, capture_output=True, text=True, timeout=120)
        said = probe.stdout.strip().splitlines()[-1] if probe.stdout.strip() else probe.stderr.strip()
        ok = said == expected
        log(f"{stem}: {said!r} {'as expected' if ok else f'but expected {expected!r}'}")
        if not ok:
            kamailio_log.seek(0)
            print(kamailio_log.read(), probe.stderr, sep="\n")
        return ok
    finally:
        stop(kamailio)
        kamailio_log.close()


def stop(process):
    """SIGTERM to the process group, SIGKILL after 5 s."""
    for signal, grace in ((15, 5), (9, None)):
        try:
            os.killpg(process.pid, signal)
        except ProcessLookupError:
            pass
        try:
            process.wait(timeout=grace)
            return
        except subprocess.TimeoutExpired:
            continue


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--probe", required=True)
    parser.add_argument("--work", required=True)
    args = parser.parse_args()
    for program in ("openssl", "kamailio", WINE):
        if shutil.which(program) is None:
            log(f"{program} is not installed")
            return 1
    shutil.rmtree(args.work, ignore_errors=True)
    os.makedirs(args.work)
    make_certificates(args.work)
    wine_env = dict(os.environ, WINEDEBUG="-all", WINEDLLOVERRIDES="mscoree,mshtml,winemenubuilder.exe=")
    cases = (("server", "registered"),
             ("wrong", "failed: TLS certificate does not match host test.local"),
             ("self", "failed: TLS certificate not trusted"))
    results = [run_case(args, args.work, stem, expected, wine_env) for stem, expected in cases]
    log(f"{sum(results)} of {len(results)} cases passed")
    return 0 if all(results) else 1


if __name__ == "__main__":
    sys.exit(main())
