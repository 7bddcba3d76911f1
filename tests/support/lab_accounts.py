"""Fills a freshly provisioned domain, on its controller and before it runs, with the accounts that
tests need."""

import os
import secrets
import sys
import time

import ldb
from samba import enable_net_export_keytab
from samba.auth import system_session
from samba.dcerpc import security
from samba.ndr import ndr_pack, ndr_unpack
from samba.net import Net
from samba.param import LoadParm
from samba.samdb import SamDB

only_in = {"corp.example": ["bea"], "lab.example": ["bob"], "third.example": ["carl"]}
COMPUTER = "bf967a86-0de6-11d0-a285-00aa003049e2"  # the class's schemaIDGUID


def nt_time(seconds):
    """Seconds since 1970 as the directory counts: 100 ns since 1601."""
    return int((seconds + 11644473600) * 10**7)


def replace(samdb, dn, **values):
    message = ldb.Message(ldb.Dn(samdb, str(dn)))
    for name, value in values.items():
        name = name.replace("_", "-")
        message[name] = ldb.MessageElement(value, ldb.FLAG_MOD_REPLACE, name)
    samdb.modify(message)


def find_user(samdb, name):
    found = samdb.search(expression=f"(sAMAccountName={name})", attrs=["objectSid"])[0]
    return found.dn, ndr_unpack(security.dom_sid, found["objectSid"][0])


def delegate_computers(samdb, unit, sid):
    """Lets the holder of `sid` make and delete computers in `unit`, and do all with them."""
    found = samdb.search(base=unit, scope=ldb.SCOPE_BASE, attrs=["nTSecurityDescriptor"])[0]
    descriptor = ndr_unpack(security.descriptor, found["nTSecurityDescriptor"][0])
    domain_sid = security.dom_sid(samdb.get_domain_sid())
    for entry in (f"(OA;CI;CCDC;{COMPUTER};;{sid})", f"(OA;CIIO;GA;;{COMPUTER};{sid})"):
        parsed = security.descriptor.from_sddl("D:" + entry, domain_sid)
        descriptor.dacl_add(parsed.dacl.aces[0])
    replace(samdb, unit, nTSecurityDescriptor=ndr_pack(descriptor))


def add_awkward_user(samdb, base, password):
    """One whose place in the directory is a test of everything that writes or takes it apart."""
    people = f"OU=People,{base}"
    unit = f"OU=Ops/On call,{people}"
    for each in (people, unit):
        samdb.add({"dn": each, "objectClass": "organizationalUnit"})
    samdb.newuser("eve", password)
    dn = ldb.Dn(samdb, unit)
    dn.add_child(ldb.Dn(samdb, "CN=x"))
    dn.set_component(0, "CN", "Smith, Eve (ops)*")
    samdb.rename(find_user(samdb, "eve")[0], dn)


def add_proxy_account(samdb, base):
    """The service account of an authentication proxy, which has no password that anybody knows."""
    hosts = f"OU=Hosts,{base}"
    for unit in (hosts, f"OU=Web,{hosts}"):
        samdb.add({"dn": unit, "objectClass": "organizationalUnit"})
    samdb.newuser("svc-apxd", "Aa1-" + secrets.token_hex(24))
    delegate_computers(samdb, hosts, find_user(samdb, "svc-apxd")[1])


def main():
    parameters = LoadParm()
    parameters.load_default()
    samdb = SamDB(url=parameters.samdb_url(), session_info=system_session(), lp=parameters)
    base = samdb.domain_dn()
    password = os.environ["TESAUTH_LAB_USER_PASSWORD"]

    with_accounts = ["alice", "joiner", "dave", "erin", "frank", "lena"]
    with_accounts += only_in.get(samdb.domain_dns_name(), [])
    samdb.transaction_start()
    # Otherwise every user may make ten computers, anywhere.
    replace(samdb, base, ms_DS_MachineAccountQuota="0")
    for name in with_accounts:
        samdb.newuser(name, password)
    samdb.disable_account("(sAMAccountName=dave)")
    replace(samdb, find_user(samdb, "erin")[0], pwdLastSet="0")
    replace(samdb, find_user(samdb, "frank")[0], accountExpires=str(nt_time(time.time() - 86400)))
    replace(samdb, find_user(samdb, "lena")[0], lockoutTime=str(nt_time(time.time())))

    if "bea" in with_accounts:
        partitions = f"CN=Partitions,{samdb.get_config_basedn()}"
        replace(samdb, partitions, uPNSuffixes="upn.example")
        replace(samdb, find_user(samdb, "bea")[0], userPrincipalName="bea.long@upn.example")
        add_awkward_user(samdb, base, password)

    servers = f"OU=Servers,{base}"
    for unit in (servers, f"OU=Hosts,{servers}"):
        samdb.add({"dn": unit, "objectClass": "organizationalUnit"})
    delegate_computers(samdb, servers, find_user(samdb, "joiner")[1])
    with_proxy = samdb.domain_dns_name() == "corp.example"
    if with_proxy:
        add_proxy_account(samdb, base)
    samdb.transaction_commit()
    if with_proxy:
        enable_net_export_keytab()
        Net(None, parameters).export_keytab(keytab=sys.argv[1], principal="svc-apxd")


if __name__ == "__main__":
    main()
