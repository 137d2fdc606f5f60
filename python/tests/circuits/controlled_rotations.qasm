// Every controlled rotation of the standard header.
OPENQASM 2.0;
include "qelib1.inc";
qreg q[4];
h q;
crz(0.3) q[0],q[1];
cu3(0.4,0.5,0.6) q[1],q[2];
cu1(0.7) q[2],q[3];
crx(0.8) q[3],q[0];
cry(0.9) q[0],q[2];
ch q[1],q[3];
cy q[2],q[0];
rxx(0.4) q[0],q[1];
rzz(0.6) q[2],q[3];
c3x q[0],q[1],q[2],q[3];
