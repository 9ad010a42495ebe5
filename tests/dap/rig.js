// What the adapter tests share: the program and its marked lines, the
// back ends (the built-in simulator, and QEMU behind its GDB server on a
// free loopback port), and the independent oracles (the cross toolchain's nm).
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

function waitListening(port, ms) {
  const end = Date.now() + ms;
  return new Promise((resolve, reject) => {
    const tryOnce = () => {
      const c = net.createConnection(port, '127.0.0.1');
      c.on('connect', () => { c.destroy(); resolve(); });
      c.on('error', () => (Date.now() > end ? reject(new Error('qemu did not listen')) : setTimeout(tryOnce, 20)));
    };
    tryOnce();
  });
}

function haveQemu() {
  try { cp.execSync('command -v qemu-system-arm', { stdio: 'ignore' }); return true; } catch (e) { return false; }
}

// One back end: start() gives the launch arguments, stop() ends its process.
const BACKENDS = [
  { name: 'simulator', hostInterface: 'USB', start: async () => ({}), stop: () => {} },
  {
    name: 'QEMU', hostInterface: 'IP', needsQemu: true,
    // Stopped and empty, or (running) with the program loaded and running.
    async start(running) {
      const port = await freePort();
      const extra = running ? ['-kernel', PROGRAM] : ['-S'];
      this.proc = cp.spawn('qemu-system-arm', ['-M', 'mps2-an385', '-gdb', `tcp:127.0.0.1:${port}`, '-display', 'none',
        '-monitor', 'none', '-serial', 'null', ...extra], { stdio: 'ignore' });
      await waitListening(port, 5000);
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
