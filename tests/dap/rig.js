// What the adapter tests share: the program and its marked lines, the
// back ends (the built-in simulator, and QEMU behind its GDB server on a
// loopback port of its own), and the independent oracles (the cross toolchain's nm).
'use strict';
const cp = require('child_process');
const fs = require('fs');
const net = require('net');
const path = require('path');

const SOURCE_DIR = process.env.TAVIT_SOURCE_DIR || path.resolve(__dirname, '../..');
const BUILD_DIR = process.env.TAVIT_BUILD_DIR || path.join(SOURCE_DIR, 'build');
const TAVIT = path.join(BUILD_DIR, 'tavit');
const PROGRAM = path.join(SOURCE_DIR, 'firmware/dap/elf/dapdemo_an385.elf');
const SOURCE = path.join(SOURCE_DIR, 'firmware/dap/dapdemo.c');

// Line of the "// @name" marker in the program's source (1-based).
function markerLine(name) {
  const lines = fs.readFileSync(SOURCE, 'utf8').split('\n');
  const i = lines.findIndex((l) => l.includes(`// @${name}`));
  if (i < 0) throw new Error(`no marker @${name}`);
  return i + 1;
}

// Symbol addresses from the cross toolchain.
function nm(sym) {
  const out = cp.execFileSync('arm-none-eabi-nm', [PROGRAM], { encoding: 'utf8' });
  const m = out.match(new RegExp(`^([0-9a-f]+) \\w ${sym}$`, 'm'));
  if (!m) throw new Error(`no symbol ${sym}`);
  return parseInt(m[1], 16);
}

// The mnemonic objdump gives for the instruction at an address.
function objdumpMnemonic(addr) {
  const out = cp.execFileSync('arm-none-eabi-objdump', ['-d', PROGRAM], { encoding: 'utf8', maxBuffer: 1 << 24 });
  const m = out.match(new RegExp(`^\\s*${addr.toString(16)}:\\s+(?:[0-9a-f]{4} ?){1,2}\\s+(\\S+)`, 'm'));
  if (!m) throw new Error(`objdump has no instruction at 0x${addr.toString(16)}`);
  return m[1].toLowerCase().replace(/\.[nw]$/, '');
}

function freePort() {
  return new Promise((resolve) => {
    const s = net.createServer();
    s.listen(0, '127.0.0.1', () => {
      const port = s.address().port;
      s.close(() => resolve(port));
    });
  });
}

// The TCP port on which process pid listens (its own sockets in
// /proc/net/tcp); 0 while it has none.
function listeningPort(pid) {
  const inodes = new Set();
  try {
    for (const fd of fs.readdirSync(`/proc/${pid}/fd`)) {
      try {
        const m = fs.readlinkSync(`/proc/${pid}/fd/${fd}`).match(/^socket:\[(\d+)\]$/);
        if (m) inodes.add(m[1]);
      } catch (e) { /* closed meanwhile */ }
    }
  } catch (e) { return 0; }
  for (const table of ['/proc/net/tcp', '/proc/net/tcp6']) {
    let rows = [];
    try { rows = fs.readFileSync(table, 'utf8').split('\n').slice(1); } catch (e) { continue; }
    for (const row of rows) {
      const f = row.trim().split(/\s+/);
      if (f.length > 9 && f[3] === '0A' && inodes.has(f[9])) return parseInt(f[1].split(':').pop(), 16);
    }
  }
  return 0;
}

// Starts QEMU with its GDB server on a port the kernel gives it when it
// binds (no other process can take it between a choice and the start) and
// resolves with the process and the port once it listens. Its monitor is on
// standard input and output.
function startQemu(args, ms) {
  const proc = cp.spawn('qemu-system-arm', ['-gdb', 'tcp:127.0.0.1:0', '-monitor', 'stdio', ...args],
    { stdio: ['pipe', 'pipe', 'pipe'] });
  let err = '';
  proc.stderr.on('data', (d) => { err += String(d); });
  proc.monitorOut = '';
  proc.stdout.on('data', (d) => { proc.monitorOut += String(d); });
  proc.stdin.on('error', () => {});
  let exited = false;
  proc.on('exit', () => { exited = true; });
  const end = Date.now() + ms;
  return new Promise((resolve, reject) => {
    const poll = () => {
      const port = exited ? 0 : listeningPort(proc.pid);
      if (port) resolve({ proc, port });
      else if (exited) reject(new Error(`qemu exited before it listened: ${err.trim()}`));
      else if (Date.now() > end) { proc.kill('SIGKILL'); reject(new Error(`qemu did not listen within ${ms} ms: ${err.trim()}`)); }
      else setTimeout(poll, 10);
    };
    poll();
  });
}

// The PC of a running QEMU, asked of its monitor (the guest goes on).
function monitorPc(proc, ms) {
  const from = proc.monitorOut.length;
  proc.stdin.write('info registers\n');
  const end = Date.now() + ms;
  return new Promise((resolve, reject) => {
    const poll = () => {
      const m = proc.monitorOut.slice(from).match(/R15=([0-9a-f]{8})/);
      if (m) resolve(parseInt(m[1], 16));
      else if (Date.now() > end || proc.exitCode !== null) reject(new Error(`no PC from the QEMU monitor: ${proc.monitorOut.slice(from)}`));
      else setTimeout(poll, 10);
    };
    poll();
  });
}

// Address and size of a function, from the cross toolchain's nm.
function nmRange(sym) {
  const out = cp.execFileSync('arm-none-eabi-nm', ['-S', PROGRAM], { encoding: 'utf8' });
  const m = out.match(new RegExp(`^([0-9a-f]+) ([0-9a-f]+) \\w ${sym}$`, 'm'));
  if (!m) throw new Error(`no symbol ${sym}`);
  return [parseInt(m[1], 16), parseInt(m[1], 16) + parseInt(m[2], 16)];
}

function haveQemu() {
  try { cp.execSync('command -v qemu-system-arm', { stdio: 'ignore' }); return true; } catch (e) { return false; }
}

// One back end: start() gives the launch arguments, stop() ends its process.
const BACKENDS = [
  { name: 'simulator', hostInterface: 'USB', start: async () => ({}), stop: () => {} },
  {
    name: 'QEMU', hostInterface: 'IP', needsQemu: true,
    // Stopped and empty, or (running) with the program loaded and running
    // past its start-up code.
    async start(running) {
      const extra = running ? ['-kernel', PROGRAM] : ['-S'];
      const { proc, port } = await startQemu(['-M', 'mps2-an385', '-display', 'none', '-serial', 'null', ...extra], 30000);
      this.proc = proc;
      if (running) {
        // A loaded machine may not have run the start-up code yet: wait until
        // the program is past it, as a target found running would be.
        const [lo, hi] = nmRange('Reset_Handler');
        const end = Date.now() + 30000;
        for (let pc = lo; pc === 0 || (pc >= lo && pc < hi);) {
          if (Date.now() > end) throw new Error('the program did not leave Reset_Handler within 30 s');
          pc = await monitorPc(proc, 10000) & ~1;
        }
      }
      return { host: `127.0.0.1:${port}` };
    },
    stop() { if (this.proc) this.proc.kill('SIGKILL'); this.proc = null; },
  },
];

function launchArgs(backend, extra) {
  return Object.assign({
    program: PROGRAM, device: 'MPS2-AN385', hostInterface: backend.hostInterface,
    pathSubstitutes: { '/tavit': SOURCE_DIR },
  }, extra);
}

module.exports = { SOURCE_DIR, BUILD_DIR, TAVIT, PROGRAM, SOURCE, markerLine, nm, objdumpMnemonic, haveQemu, freePort, BACKENDS, launchArgs };
