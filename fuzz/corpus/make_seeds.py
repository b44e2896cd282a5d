#!/usr/bin/env python3
"""Writes the hand-made seed inputs of fuzz/corpus/. Run from the repository
root. Real logs are copied from tests/data/verify/; the signed quote seed
(verify_quote/built_rsa2048_sha256) was written once with the test helper
QuoteBuilder (tests/verify/VerifyTestUtil.h) and is not regenerated here."""
import base64, hashlib, json, os, struct, subprocess

D = 'tests/data/verify'
C = 'fuzz/corpus'


def write(target, name, data):
    os.makedirs(f'{C}/{target}', exist_ok=True)
    with open(f'{C}/{target}/{name}', 'wb') as f:
        f.write(data)


def be16(x): return struct.pack('>H', x)
def be32(x): return struct.pack('>I', x)
def le32(x): return struct.pack('<I', x)
def le16(x): return struct.pack('<H', x)
def sized(b): return be16(len(b)) + b


ek = open(f'{D}/ek-template-default.bin', 'rb').read()
win = json.load(open(f'{D}/windows_gcp_shielded_vm.json'))
ak = base64.b64decode(win['AK']['Public'])
quote = base64.b64decode(win['Quote']['Quote'])
sig = base64.b64decode(win['Quote']['Signature'])
sel = be32(1) + be16(0x000b) + bytes([3, 0xff, 0xff, 0x7f])
digests = be32(2) + sized(bytes(32)) + sized(bytes(range(32)))

# tpm2_unmarshal: selector byte (codec) + bytes.
seeds = {
    'tpm2b_digest': bytes([1]) + sized(bytes(range(32))),
    'tpm2b_attest': bytes([5]) + sized(quote),
    'tpm2b_public_ek': bytes([6]) + sized(ek),
    'tpm2b_public_ak': bytes([6]) + sized(ak),
    'tpmt_public_ek': bytes([7]) + ek,
    'tpms_attest_quote': bytes([8]) + quote,
    'tpmt_signature_rsassa': bytes([9]) + sig,
    'tpmt_signature_null': bytes([9]) + be16(0x0010),
    'tpmt_signature_ecdsa': bytes([9]) + be16(0x0018) + be16(0x000b) + sized(bytes(32)) + sized(bytes(32)),
    'tpmt_sig_scheme_ecdaa': bytes([10]) + be16(0x001a) + be16(0x000b) + be16(7),
    'tpml_pcr_selection': bytes([11]) + sel,
    'tpml_digest': bytes([12]) + digests,
    'auth_command': bytes([16]) + be32(0x40000009) + sized(b'') + b'\x01' + sized(bytes(32)),
    'pcr_read_out': bytes([24]) + be16(0x8001) + be32(0) + be32(0) + be32(7) + sel + digests,
    'get_capability_out': bytes([25]) + be16(0x8001) + be32(0) + be32(0) + b'\x00' + be32(6) + be32(2)
    + be32(0x100) + be32(0x322e3000) + be32(0x101) + be32(0),
    'context_save_out': bytes([27]) + be16(0x8001) + be32(0) + be32(0) + struct.pack('>Q', 5) + be32(0x80000001)
    + be32(0x4000000b) + sized(bytes(100)),
    'nv_read_out': bytes([29]) + be16(0x8002) + be32(0) + be32(0) + be32(20) + sized(bytes(16)) + sized(b'')
    + b'\x01' + sized(b''),
}
for name, data in seeds.items():
    write('tpm2_unmarshal', name, data)

# verify_quote: the real SHA-1 quote with its PCR values (SHA-1 bank first).
pcrs = bytearray(5 * 24 * 64)
for p in win['Log']['PCRs']:
    d = base64.b64decode(p['Digest'])
    pcrs[p['Index'] * 64:p['Index'] * 64 + len(d)] = d
write('verify_quote', 'real_sha1_quote',
      be16(len(ak) + 2) + sized(ak) + be16(len(quote) + 2) + sized(quote) + be16(len(sig)) + sig + b'\x00'
      + bytes(pcrs[:24 * 64]))

# event_log: small real logs, and a crypto-agile log of tagged events in the
# PCRs that validation examines.
for name in ['event.bin', 'event-uefiservices.bin', 'event-sd-boot-fedora37.bin', 'short_no_action_eventlog',
             'event-uefi-sha1-log.bin']:
    write('event_log', name, open(f'{D}/eventlog/{name}', 'rb').read())
spec_id = b'Spec ID Event03\x00' + le32(0) + bytes([0, 2, 0, 2]) + le32(2) + le16(4) + le16(20) + le16(11) + le16(32) \
    + b'\x00'
log = le32(0) + le32(3) + bytes(20) + le32(len(spec_id)) + spec_id
for pcr, hvk_id, payload in [(10, 5, b'uefiSecureBootEnabled = TRUE'), (12, 1, b'k.b00'), (12, 1, b's.v00'),
                             (12, 2, b'sb.v00'), (11, 2, b'hyvupdt.v00'), (17, 2, b'b'), (19, 1, b'k.b00'),
                             (4, 1, b'boot')]:
    data = le32(hvk_id) + le32(len(payload) + 1) + payload + b'\x00'
    log += le32(pcr) + le32(6) + le32(2) + le16(4) + hashlib.sha1(payload).digest() + le16(11) \
        + hashlib.sha256(payload).digest() + le32(len(data)) + data
write('event_log', 'tagged_events', log)


# attestation_context: protobuf wire encoding written by hand.
def varint(x):
    out = b''
    while True:
        b = x & 0x7f
        x >>= 7
        if x:
            out += bytes([b | 0x80])
        else:
            return out + bytes([b])


def field(num, payload):
    return varint(num << 3 | 2) + varint(len(payload)) + payload


def context(messages, session=0x1122334455667788):
    return varint(1 << 3) + varint(session) + b''.join(field(2, m) for m in messages)


quote_response = field(1, sized(quote)) + field(2, sig) + field(3, field(1, sel) + field(2, digests))
write('attestation_context', 'quote_and_log', context([
    field(7, quote_response),
    field(9, varint(1 << 3) + varint(1) + field(2, log)),
]))
write('attestation_context', 'create_ak_response', context([field(3, field(1, sized(ek)) + field(2, sized(ak)))]))
write('attestation_context', 'activate_and_unknown_field_1', context([
    field(5, field(1, sized(bytes(32)))), field(1, b'ignored') + field(8, b''),
]))


# http_request: deeply nested JSON-RPC bodies, at the parser's depth limit
# (64) and far past it, in both JSON forms, as requests and as bare bodies.
def nested_input(depth, decorated):
    if decorated:
        inner = '{"STRUCTURE": {"s": ' * depth + '{"a": 1}' + '}}' * depth
    else:
        inner = '[' * depth + ']' * depth
    return ('{"jsonrpc": "2.0", "id": 1, "method": "invoke", "params": {"serviceId": '
            '"com.quarro.lumen.std.introspection.provider", "operationId": "get", "input": '
            + inner + '}}').encode()


def post(content_type, body):
    return (f'POST /api HTTP/1.1\r\nHost: l\r\nContent-Type: {content_type}\r\n'
            f'Content-Length: {len(body)}\r\n\r\n').encode() + body


write('http_request', 'post_nested_arrays', post('application/json', nested_input(5000, False)))
write('http_request', 'post_nested_clean', post('application/vnd.quarro.lumen.cleanjson', nested_input(5000, False)))
write('http_request', 'body_nested_at_limit', nested_input(29, True))
write('http_request', 'body_nested_past_limit', nested_input(40, True))

# config_import: an export with every key, the same with the signing key pair
# planted, and deeply nested sub-objects. The EK and the CA are the maker
# certificate of fuzz/data and its public key.
ca = open('fuzz/data/imgdb_maker_ca.pem').read()
ek_pem = subprocess.run(['openssl', 'x509', '-pubkey', '-noout'], input=ca.encode(),
                        capture_output=True, check=True).stdout.decode()


def record(key, instance, obj):
    return {'key': key, 'component': 'attestation', 'group': 'hyv', 'instance': instance, 'object': obj}


def checksum(digest, kind, process):
    return {'fields': {'checksum': digest, 'checksum_type': kind, 'verify_process': process}}


payload = {'fields': {'name': 'k', 'file_name': 'k.gz'},
           'subs': [['checksums', '0', checksum('ab' * 32, 'sha-256', 'gunzip')],
                    ['checksums', '1', checksum('cd' * 20, 'sha-1', '')]]}
image = {'fields': {'version': '8.0.1-1'},
         'subs': [['paks', 'hyv-base', {'fields': {'name': 'hyv-base'}, 'subs': [['payloads', 'k', payload]]}]]}
export = {
    'format': 'witnessd-configstore-1',
    'keys': [[k, 'attestation', 'hyv'] for k in
             ('tpm2_settings', 'tpm2_endorsement_keys', 'tpm2_ca_certificates', 'hyv_base_images')],
    'records': [
        record('tpm2_settings', '', {'fields': {'require_endorsement_keys': True,
                                                'require_certificate_validation': True}}),
        record('tpm2_endorsement_keys', 'ek1', {'fields': {'name': 'ek1', 'public_key': ek_pem}}),
        record('tpm2_ca_certificates', 'ca1', {'fields': {'name': 'ca1'},
                                               'subs': [['cert_chain', '', {'fields': {'certs': [ca]}}]]}),
        record('hyv_base_images', '8.0.1-1', image),
    ],
}
write('config_import', 'every_key', json.dumps(export, indent=2).encode())
planted = json.loads(json.dumps(export))
planted['keys'].append(['certificate', 'attestation', 'hyv'])
planted['records'].append(record('certificate', '', {'fields': {'certificate': ca, 'private_key': 'planted'}}))
write('config_import', 'planted_signing_key', json.dumps(planted).encode())
deep = '{"fields":{},"subs":[["paks","",' * 1000 + '{"fields":{}}' + ']]}' * 1000
write('config_import', 'nested_sub_objects',
      ('{"format":"witnessd-configstore-1","keys":[["hyv_base_images","attestation","hyv"]],"records":['
       '{"key":"hyv_base_images","component":"attestation","group":"hyv","instance":"1","object":'
       + deep + '}]}').encode())
