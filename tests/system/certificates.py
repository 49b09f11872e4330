"""Certificates for a test, made with the openssl command line."""

import subprocess


def _openssl(*arguments):
    subprocess.run(["openssl", *map(str, arguments)], check=True, capture_output=True, timeout=60)


def make_authority(directory, name):
    """A self-signed authority; returns its certificate and key."""
    certificate, key = directory / f"{name}.pem", directory / f"{name}.key"
    _openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2",
             "-subj", f"/CN={name}", "-addext", "basicConstraints=critical,CA:TRUE", "-keyout", key, "-out", certificate)
    return certificate, key


def make_certificate(directory, name, authority, alternative_name="IP:127.0.0.1"):
    """A certificate that the authority has signed; returns it and its key."""
    certificate, key, request = (directory / f"{name}.{ending}" for ending in ("pem", "key", "csr"))
    extensions = directory / f"{name}.ext"
    extensions.write_text(f"subjectAltName={alternative_name}\n")
    _openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-subj", f"/CN={name}",
             "-keyout", key, "-out", request)
    _openssl("x509", "-req", "-in", request, "-CA", authority[0], "-CAkey", authority[1], "-CAcreateserial",
             "-days", "2", "-extfile", extensions, "-out", certificate)
    return certificate, key
