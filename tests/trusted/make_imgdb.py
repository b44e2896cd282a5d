#!/usr/bin/env python3
"""Builds signed hypervisor image databases (gzip of a GNU tar) for tests.

Certificate authorities are made once per --ca-dir with the openssl command
line: a maker CA and a partner CA, each with a signer, plus an expired and a
revoked maker signer. Descriptors are signed with `openssl cms -sign -binary
-outform PEM` (detached), relabelled as PKCS7 PEM blocks. Every knob below
breaks exactly one thing so tests can check each refusal.
"""
import argparse
import gzip
import io
import os
import subprocess
import sys
import tarfile

PAKS = "var/db/hyvstore/paks/"
PROFILES = "var/db/hyvstore/profiles/"


def run(*args, cwd=None):
    subprocess.run(args, check=True, cwd=cwd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


CA_CONF = """[ca]
default_ca = ca_default
[ca_default]
dir = {d}
certificate = {d}/ca.pem
private_key = {d}/ca.key
database = {d}/index.txt
new_certs_dir = {d}/new
serial = {d}/serial
crlnumber = {d}/crlnumber
default_md = sha256
default_days = 3650
default_crl_days = 3650
policy = anything
copy_extensions = none
unique_subject = no
[anything]
organizationName = supplied
commonName = supplied
[signer]
basicConstraints = CA:FALSE
keyUsage = digitalSignature
"""


def make_ca(ca_dir, name, org):
    d = os.path.join(ca_dir, name)
    if os.path.exists(os.path.join(d, "ca.pem")):
        return d
    os.makedirs(os.path.join(d, "new"), exist_ok=True)
    open(os.path.join(d, "index.txt"), "w").close()
    with open(os.path.join(d, "serial"), "w") as f:
        f.write("1000\n")
    with open(os.path.join(d, "crlnumber"), "w") as f:
        f.write("01\n")
    with open(os.path.join(d, "ca.cnf"), "w") as f:
        f.write(CA_CONF.format(d=d))
    run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", f"{d}/ca.key",
        "-out", f"{d}/ca.pem", "-days", "3650", "-subj", f"/O={org}/CN={org} Root CA",
        "-addext", "basicConstraints=critical,CA:TRUE", "-addext", "keyUsage=critical,keyCertSign,cRLSign")
    return d


def make_signer(d, name, org, start=None, end=None):
    key, cert = f"{d}/{name}.key", f"{d}/{name}.pem"
    if os.path.exists(cert):
        return key, cert
    run("openssl", "req", "-new", "-newkey", "rsa:2048", "-nodes", "-keyout", key, "-out", f"{d}/{name}.csr",
        "-subj", f"/O={org}/CN={name}")
    dates = ["-startdate", start, "-enddate", end] if start else ["-days", "3650"]
    run("openssl", "ca", "-batch", "-config", f"{d}/ca.cnf", "-extensions", "signer", "-notext",
        "-in", f"{d}/{name}.csr", "-out", cert, *dates)
    return key, cert


def setup_cas(ca_dir):
    maker = make_ca(ca_dir, "maker", "Quarro")
    partner = make_ca(ca_dir, "partner", "Partner")
    signers = {
        "maker": make_signer(maker, "signer", "Quarro"),
        "maker-expired": make_signer(maker, "expired", "Quarro", "20200101000000Z", "20210101000000Z"),
        "revoked": make_signer(maker, "revoked", "Quarro"),
        "partner": make_signer(partner, "signer", "Partner"),
    }
    self_dir = os.path.join(ca_dir, "self")
    if not os.path.exists(f"{self_dir}/self.pem"):
        os.makedirs(self_dir, exist_ok=True)
        run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", f"{self_dir}/self.key",
            "-out", f"{self_dir}/self.pem", "-days", "3650", "-subj", "/O=Quarro/CN=self signed")
    signers["self"] = (f"{self_dir}/self.key", f"{self_dir}/self.pem")
    if not os.path.exists(f"{maker}/crl.pem"):
        run("openssl", "ca", "-config", f"{maker}/ca.cnf", "-revoke", f"{maker}/revoked.pem")
        run("openssl", "ca", "-config", f"{maker}/ca.cnf", "-gencrl", "-out", f"{maker}/crl.pem")
        run("openssl", "ca", "-config", f"{partner}/ca.cnf", "-gencrl", "-out", f"{partner}/crl.pem")
    return maker, partner, signers


def sign(data, signer, work):
    key, cert = signer
    src = os.path.join(work, "content")
    with open(src, "wb") as f:
        f.write(data)
    out = subprocess.run(["openssl", "cms", "-sign", "-binary", "-outform", "PEM", "-signer", cert,
                          "-inkey", key, "-in", src], check=True, capture_output=True).stdout
    return out.replace(b"-----BEGIN CMS-----", b"-----BEGIN PKCS7-----").replace(
        b"-----END CMS-----", b"-----END PKCS7-----")


def descriptor(name, ptype, version, payloads, omit_property=None):
    props = {"name": name, "type": ptype, "version": version, "vendor": "Quarro",
             "summary": f"{name} package"}
    out = ["<?xml version='1.0' encoding='UTF-8'?>", "<pak>"]
    for k, v in props.items():
        if k != omit_property:
            out.append(f"  <{k}>{v}</{k}>")
    out.append("  <payloads>")
    for p in payloads:
        out.append(f"    <payload name='{p['name']}' type='{p.get('type', 'tgz')}'>")
        for c in p["checksums"]:
            vp = f" verify-process='{c[2]}'" if c[2] is not None else ""
            out.append(f"      <checksum checksum-type='{c[1]}'{vp}>{c[0]}</checksum>")
        out.append("    </payload>")
    out.append("  </payloads>")
    out.append("</pak>")
    return "\n".join(out).encode()


def profile(modules):
    out = ["<?xml version='1.0' encoding='UTF-8'?>", "<image-profile>", "  <modules>"]
    for core, payloads in modules:
        out.append("    <module>")
        out.append(f"      <system>{core}</system>")
        out.append("      <payloads>")
        for file_name, payload_name in payloads:
            out.append(f"        <payload payload-name='{payload_name}'>{file_name}</payload>")
        out.append("      </payloads>")
        out.append("    </module>")
    out.append("  </modules>")
    out.append("</image-profile>")
    return "\n".join(out).encode()


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--ca-dir", required=True)
    ap.add_argument("--out", help="gzip-compressed imgdb to write")
    ap.add_argument("--certs-out", help="directory that receives quarro.cert, quarropartner.cert (+ .crl)")
    ap.add_argument("--crl", action="append", default=[], choices=["maker", "partner", "maker-garbage"])
    ap.add_argument("--version", default="8.0.1-12345")
    ap.add_argument("--update-version", default="8.0.1-12345-u1")
    ap.add_argument("--kernel-digest", default="aa" * 32)
    ap.add_argument("--mle-digest", default="bb" * 32)
    ap.add_argument("--payload", action="append", default=[],
                    help="extra hyv-base gunzip sha-256 payload NAME:FILE:HEX")
    ap.add_argument("--sign-base", default="maker", help="comma list of signers, in block order")
    ap.add_argument("--sign-update", default="maker")
    ap.add_argument("--checksums", type=int, default=1, help="checksums on payload k")
    ap.add_argument("--checksum-len", type=int, default=0, help="length of an extra checksum on payload s")
    ap.add_argument("--name-len", type=int, default=0, help="length of an extra payload's name")
    ap.add_argument("--omit-property", help="hyv-base descriptor property left out")
    for flag in ("posix", "symlink", "no-end", "garbage-after-end", "big-entry", "no-profile",
                 "no-core-node", "no-sig", "tamper-base", "not-gzip"):
        ap.add_argument("--" + flag, action="store_true")
    a = ap.parse_args()

    os.makedirs(a.ca_dir, exist_ok=True)
    maker, partner, signers = setup_cas(a.ca_dir)
    if a.certs_out:
        os.makedirs(a.certs_out, exist_ok=True)
        for src, dst in ((f"{maker}/ca.pem", "quarro.cert"), (f"{partner}/ca.pem", "quarropartner.cert")):
            with open(src, "rb") as f, open(os.path.join(a.certs_out, dst), "wb") as g:
                g.write(f.read())
        for which in a.crl:
            ca = maker if which.startswith("maker") else partner
            name = "quarro.crl" if which.startswith("maker") else "quarropartner.crl"
            with open(f"{ca}/crl.pem", "rb") as f, open(os.path.join(a.certs_out, name), "wb") as g:
                g.write(f.read())
                if which == "maker-garbage":
                    g.write(b"-----BEGIN X509 CRL-----\nbm90IGEgQ1JM!!\n-----END X509 CRL-----\n")
    if not a.out:
        return 0

    base_payloads = [
        {"name": "k", "checksums": [(a.kernel_digest, "sha-256", "gunzip")] +
                                   [("%064x" % i, "sha-1", None) for i in range(1, a.checksums)]},
        {"name": "b", "checksums": [(a.mle_digest, "sha-256", "txt-mle"), ("cc" * 32, "sha-256", "gunzip")]},
    ]
    base_profile = [("hvkernel.gz", "k"), ("boot.b00", "b")]
    for item in a.payload:
        name, file_name, digest = item.split(":")
        base_payloads.append({"name": name, "checksums": [(digest, "sha-256", "gunzip")]})
        base_profile.append((file_name, name))
    if a.checksum_len:
        base_payloads.append({"name": "s", "checksums": [("d" * a.checksum_len, "sha-256", "gunzip")]})
    if a.name_len:
        base_payloads.append({"name": "n" * a.name_len, "checksums": [("ee" * 32, "sha-256", "gunzip")]})
    update_payloads = [{"name": "u", "checksums": [("dd" * 32, "sha-256", "gunzip")]}]

    base = descriptor("hyv-base", "bootbank", a.version, base_payloads, a.omit_property)
    update = descriptor("hyv-update", "bootbank", a.update_version, update_payloads)
    core = "Quarro_hyv-base_bootbank_" + a.version
    if a.no_core_node:
        core = "Quarro_hyv-base_bootbank_other"
    prof = profile([(core, base_profile), ("Quarro_hyv-update_bootbank_" + a.update_version,
                                           [("update.gz", "u")])])

    work = os.path.dirname(os.path.abspath(a.out))
    entries = [(PAKS + "hyv-base.orig", base)]
    if not a.no_sig:
        sig = b"".join(sign(base, signers[s], work) for s in a.sign_base.split(",") if s)
        entries.append((PAKS + "hyv-base.sig", sig))
    if a.tamper_base:
        entries[0] = (PAKS + "hyv-base.orig", base.replace(b"Quarro</vendor>", b"Quarrx</vendor>"))
    entries.append((PAKS + "hyv-update.orig", update))
    entries.append((PAKS + "hyv-update.sig",
                    b"".join(sign(update, signers[s], work) for s in a.sign_update.split(",") if s)))
    if a.big_entry:
        # Pads the profile with a comment to one byte over the 1 MiB entry limit.
        pad = 0x100000 + 1 - len(prof) - len("<!---->")
        prof = prof + b"<!--" + b"x" * pad + b"-->"
    if not a.no_profile:
        entries.append((PROFILES + "hyv-8.0.1.xml", prof))

    buf = io.BytesIO()
    fmt = tarfile.USTAR_FORMAT if a.posix else tarfile.GNU_FORMAT
    with tarfile.open(fileobj=buf, mode="w", format=fmt) as t:
        for d in ("var/", "var/db/", "var/db/hyvstore/", PAKS, PROFILES):
            info = tarfile.TarInfo(d.rstrip("/"))
            info.type = tarfile.DIRTYPE
            t.addfile(info)
        for name, data in entries:
            info = tarfile.TarInfo(name)
            info.size = len(data)
            info.mtime = 1700000000
            t.addfile(info, io.BytesIO(data))
        if a.symlink:
            info = tarfile.TarInfo("var/db/hyvstore/link")
            info.type = tarfile.SYMTYPE
            info.linkname = "paks"
            t.addfile(info)
        end = buf.tell()
    raw = buf.getvalue()
    if a.no_end:
        raw = raw[:end]
    if a.garbage_after_end:
        raw = raw[:end + 600] + b"garbage" + raw[end + 607:]
    with open(a.out, "wb") as f:
        f.write(raw if a.not_gzip else gzip.compress(raw))
    return 0


if __name__ == "__main__":
    sys.exit(main())
