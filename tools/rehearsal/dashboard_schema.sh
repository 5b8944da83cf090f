#!/usr/bin/env bash
# Holds the dashboard against Grafana's own description of one: the TypeScript types of its schema
# package, which the compiler compares field by field, unknown fields included. Needs npm, whose
# packages go into a directory that is removed; what the queries return is monitoring.py's matter.
#
#   tools/rehearsal/dashboard_schema.sh [DASHBOARD]
set -euo pipefail
cd "$(dirname "$0")/../.."
dashboard=$(realpath "${1:-packaging/monitoring/lumo-dashboard.json}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
npm install --silent --no-audit --no-fund --prefix "$work" typescript@5 @grafana/schema@13 >/dev/null
types=./node_modules/@grafana/schema/dist/types/raw
{
  printf 'import type {Dashboard, DataSourceRef, Panel} from "%s/dashboard/x/types.gen";\n' "$types"
  # The schema leaves queries to the data source: ours have these fields.
  printf 'type Query = {refId: string, expr: string, legendFormat: string, '
  printf 'datasource: DataSourceRef, instant?: boolean};\n'
  printf 'type Shown = Omit<Panel, "targets"> & {id: number, targets: Query[]};\n'
  printf 'export const dashboard: Omit<Dashboard, "panels"> & {panels: Shown[]} ='
  cat "$dashboard"
} >dashboard.ts
npx --no-install tsc --noEmit --strict --skipLibCheck --module esnext --moduleResolution bundler \
  dashboard.ts
echo "The dashboard is what the schema describes."
