// Serves the web monitor on 127.0.0.1 only: the page, its script and the SIP
// library's ES modules, nothing else (no listing, no path outside those).
//   node serve.js [PORT]      PORT 0 or none: any free port; the URL is printed
'use strict';
const http = require('http');
const fs = require('fs');
const path = require('path');

const here = __dirname;
const library = path.join(here, 'node_modules', 'sip.js', 'lib');
const types = { '.html': 'text/html; charset=utf-8', '.js': 'text/javascript; charset=utf-8',
                '.css': 'text/css; charset=utf-8' };
const pageFiles = new Set(['/index.html', '/app.js', '/style.css']);

function resolve(urlPath) {
  if (urlPath.includes('\0')) return null;  // fs throws on it
  if (urlPath === '/') urlPath = '/index.html';
  if (pageFiles.has(urlPath)) return path.join(here, urlPath);
  const prefix = '/sip.js/';
  if (!urlPath.startsWith(prefix)) return null;
  const file = path.normalize(path.join(library, urlPath.slice(prefix.length)));
  return file.startsWith(library + path.sep) && file.endsWith('.js') ? file : null;
}

const server = http.createServer((req, res) => {
  let urlPath;
  try {
    urlPath = decodeURIComponent(new URL(req.url, 'http://127.0.0.1').pathname);
  } catch (e) {
    urlPath = null;
  }
  const file = req.method === 'GET' && urlPath !== null ? resolve(urlPath) : null;
  if (!file) {
    console.error(`web-monitor: 404 ${req.method} ${String(req.url).slice(0, 200)}`);
    res.writeHead(404, { 'Content-Type': 'text/plain' }).end('not found\n');
    return;
  }
  fs.readFile(file, (err, data) => {
    if (err) {
      res.writeHead(404, { 'Content-Type': 'text/plain' }).end('not found\n');
      return;
    }
    res.writeHead(200, { 'Content-Type': types[path.extname(file)] || 'application/octet-stream',
                         'Cache-Control': 'no-store' });
    res.end(data);
  });
});

if (!fs.existsSync(library)) {
  console.error(`web-monitor: ${library} missing: run "npm ci" in ${here}`);
  process.exit(1);
}
const port = Number(process.argv[2] || process.env.WEB_MONITOR_PORT || 0);
server.listen(port, '127.0.0.1', () => {
  console.log(`web-monitor: serving on http://127.0.0.1:${server.address().port}/`);
});
for (const sig of ['SIGINT', 'SIGTERM']) process.on(sig, () => server.close(() => process.exit(0)));
